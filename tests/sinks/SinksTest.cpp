// fbcdc follow into Kafka (librdkafka's mock cluster, in this process) and Redis Streams (a real
// redis-server on a free loopback port): every event of every log arrives, and broker failures and
// kills in the middle lose nothing; librdkafka's settings from a file; and the logins Redis may
// want.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <tuple>

#include "Database.h"
#include "EventWriter.h"
#include "FbcdcRuns.h"
#include "LiteralRow.h"
#include "LogDirectory.h"
#include "PluginFixture.h"
#include "RedisServer.h"
#include "RedisSink.h"
#include "StreamSink.h"

namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

// The Kafka protocol's API key of Produce requests.
constexpr std::int16_t kProduceRequest = 0;

// A log's JSON event as the sinks send it, with the moment of production masked.
std::string masked(std::string json) {
  return std::regex_replace(json, std::regex("\"ts_ms\":[0-9]+"), "\"ts_ms\":0");
}

using Events = std::map<std::string, std::string>;  // JSON by identity

// "" when arrived holds exactly the expected events; else the counts and the first difference.
std::string compare(const Events& expected, const Events& arrived) {
  if (expected == arrived) return "";
  const auto [e, a] =
      std::mismatch(expected.begin(), expected.end(), arrived.begin(), arrived.end());
  return std::to_string(expected.size()) + " expected, " + std::to_string(arrived.size()) +
         " arrived; first difference at " + (e != expected.end() ? e->first : a->first);
}

// "<file> <index>" of an event's JSON.
std::string identity(const std::string& json) {
  std::smatch m;
  if (!std::regex_search(json, m, std::regex("\"file\":\"([0-9a-f_.fbl]+)\".*?\"index\":([0-9]+)")))
    return "";
  return m[1].str() + " " + m[2].str();
}

class SinksTest : public PluginFixture {
 protected:
  // Publishes a log of inserts into two tables and a statement; a blob-sized text now and then.
  void publish(std::uint64_t number, int rows) {
    ReplTransaction* t = begin(number);
    for (int i = 0; i < rows; ++i) {
      const auto id = static_cast<std::int32_t>(number * 1000 + i);
      LiteralRow row(i % 3 ? "ORDERS" : "LINES"), old("ORDERS"), changed("ORDERS");
      row.addLong("ID", id).addVarchar("NOTE", std::string(i % 7 * 30u, 'x'), 4);
      EXPECT_EQ(0, t->insertRecord(status, nullptr, nullptr, &row));
      if (i % 7 == 6 && i % 3) {  // an update of an ORDERS row's note
        old.addLong("ID", id).addVarchar("NOTE", "a", 4);
        changed.addLong("ID", id).addVarchar("NOTE", "b", 4);
        EXPECT_EQ(0, t->updateRecord(status, nullptr, nullptr, &old, &changed));
      }
      EXPECT_EQ(0, i % 5 == 4 ? t->deleteRecord(status, nullptr, nullptr, &row) : 0);
    }
    EXPECT_EQ(0, t->executeSql(status, "update counters set n = n + 1", 7));
    EXPECT_EQ(0, t->commit(status));
    t->dispose();
  }

  // Every event of every log in the directory, by identity, as fbcdc dump prints it.
  Events expected() {
    const FbcdcOutcome dump = runFbcdc(dir, {"dump", logs});
    EXPECT_EQ(0, dump.status) << dump.err;
    Events events;
    std::istringstream in(dump.out);
    for (std::string line; std::getline(in, line);) events[identity(line)] = masked(line);
    return events;
  }
};

// A follower's checkpoint moves only after the log's events are as durable as it: a durable sink
// syncs a regular file once per log; a pipe cannot be synced, and one not asked to be durable
// (dump) never syncs.
TEST_F(SinksTest, StreamOutputIsSyncedBeforeTheCheckpointMoves) {
  publish(1, 3);
  publish(2, 3);
  int pipeFds[2];
  ASSERT_EQ(0, ::pipe(pipeFds));
  std::FILE* pipeOut = ::fdopen(pipeFds[1], "w");
  std::FILE* fileOut = std::fopen((dir / "events.jsonl").c_str(), "w");
  auto writer = EventWriter::create("json", EventFormat());
  // Output, durable, syncs expected for the two logs.
  const std::tuple<std::FILE*, bool, std::size_t> cases[] = {
      {fileOut, true, 2}, {fileOut, false, 0}, {pipeOut, true, 0}};
  for (const auto& [out, durable, syncs] : cases) {
    StreamSink sink(*writer, out, durable);
    PosixFaults::startRecording();
    for (const LogFile& log : LogDirectory::list(logs)) sink.send(log);
    std::size_t synced = 0;
    for (const PosixFaults::Recorded& r : PosixFaults::takeRecording())
      synced += r.call == PosixFaults::kFdatasync && r.fd == ::fileno(out);
    // The pipe's buffer holds the few events of the two logs: nobody needs to read them.
    EXPECT_EQ(syncs, synced) << (out == pipeOut ? "pipe" : "file") << " durable " << durable;
  }
  std::fclose(fileOut);
  std::fclose(pipeOut);
  ::close(pipeFds[0]);
}

// Reads every message of the topics back: its topic, key and value ("null" for none).
std::vector<std::tuple<std::string, std::string, std::string>> consume(
    const std::string& brokers, const std::vector<std::string>& topics) {
  char error[512];
  rd_kafka_conf_t* conf = rd_kafka_conf_new();
  rd_kafka_conf_set(conf, "bootstrap.servers", brokers.c_str(), error, sizeof error);
  rd_kafka_conf_set(conf, "group.id", "fbcdc-test", error, sizeof error);
  rd_kafka_t* consumer = rd_kafka_new(RD_KAFKA_CONSUMER, conf, error, sizeof error);
  rd_kafka_poll_set_consumer(consumer);
  // Every partition from its start, without waiting for a group to form.
  rd_kafka_topic_partition_list_t* list = rd_kafka_topic_partition_list_new(9);
  for (const std::string& t : topics)
    for (int p = 0; p < 3; ++p)
      rd_kafka_topic_partition_list_add(list, t.c_str(), p)->offset = RD_KAFKA_OFFSET_BEGINNING;
  rd_kafka_assign(consumer, list);
  rd_kafka_topic_partition_list_destroy(list);
  std::vector<std::tuple<std::string, std::string, std::string>> messages;
  for (int idle = 0; idle < 30;) {
    rd_kafka_message_t* m = rd_kafka_consumer_poll(consumer, 100);
    idle = m && !m->err ? 0 : idle + 1;
    if (m && !m->err) {
      EXPECT_NE(nullptr, m->key);
      messages.emplace_back(
          rd_kafka_topic_name(m->rkt), std::string(static_cast<const char*>(m->key), m->key_len),
          m->payload ? std::string(static_cast<const char*>(m->payload), m->len) : "null");
    }
    if (m) rd_kafka_message_destroy(m);
  }
  rd_kafka_consumer_close(consumer);
  rd_kafka_destroy(consumer);
  return messages;
}

// Keys come from the source's primary keys: every message of an ORDERS row, insert, update, delete
// and tombstone, carries {"ID":n}; LINES has no key and is keyed by its name, without tombstones.
// Then follow -F FILE: librdkafka's settings from a file of KEY=VALUE lines (# comments), as kcat
// reads them, so that SASL and SSL secrets stay off the command line; -X given as well wins. The
// logs are delivered only where the file's bootstrap.servers points (nothing listens on port 1),
// and fail where -X points elsewhere: the lines of golden/kafka_properties.txt, each run's
// checkpoint $/N.pos.
TEST_F(SinksTest, KafkaReceivesEveryEventAndABrokerFailureLeavesTheCheckpoint) {
  {
    Database source(dir / "source.fdb", true);
    source.executeAlone("CREATE TABLE ORDERS (ID INTEGER NOT NULL PRIMARY KEY, NOTE VARCHAR(300))");
    source.executeAlone("CREATE TABLE LINES (ID INTEGER, NOTE VARCHAR(300))");
  }
  char error[512];
  rd_kafka_t* host = rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), error, sizeof error);
  rd_kafka_mock_cluster_t* cluster = rd_kafka_mock_cluster_new(host, 3);
  const std::string brokers = rd_kafka_mock_cluster_bootstraps(cluster);
  for (const char* t : {"fbcdc.ORDERS", "fbcdc.LINES", "fbcdc.transaction"})
    rd_kafka_mock_topic_create(cluster, t, 3, 1);
  const std::string checkpoint = dir / "checkpoint";
  auto follow = [&] {
    // One message per request, so that an injected error falls in the middle of a log.
    return runFbcdc(
        dir, {"follow", logs, "--once", "--sink", "kafka", "--brokers", brokers, "--checkpoint",
              checkpoint, "--tombstones", "--transactions", "--keys-from", dir / "source.fdb", "-X",
              "linger.ms=0", "-X", "batch.num.messages=1"});
  };
  publish(1, 20);
  publish(2, 10);
  FbcdcOutcome r = follow();
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("LINES")) << "said at start";
  const std::string before = readText(checkpoint);
  EXPECT_NE(std::string::npos, before.find("_0000000000000002.fbl"));

  publish(3, 30);
  rd_kafka_mock_push_request_errors(
      cluster, kProduceRequest, 6, RD_KAFKA_RESP_ERR_NO_ERROR, RD_KAFKA_RESP_ERR_NO_ERROR,
      RD_KAFKA_RESP_ERR_NO_ERROR, RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED,
      RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED, RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED);
  r = follow();
  EXPECT_EQ(1, r.status);
  EXPECT_NE(std::string::npos, r.err.find("_0000000000000003.fbl")) << r.err;
  EXPECT_EQ(before, readText(checkpoint)) << "the checkpoint stays before the failed log";
  r = follow();
  ASSERT_EQ(0, r.status) << r.err;

  Events arrived;
  std::size_t tombstones = 0, markers = 0;
  const std::regex id("\"ID\":([0-9]+)");
  for (const auto& [topic, key, value] :
       consume(brokers, {"fbcdc.ORDERS", "fbcdc.LINES", "fbcdc.transaction"})) {
    EXPECT_TRUE(topic != "fbcdc.LINES" || key == "\"LINES\"") << key;
    std::smatch m;
    if (topic == "fbcdc.ORDERS" && std::regex_search(value, m, id)) {
      EXPECT_EQ("{\"ID\":" + m[1].str() + "}", key) << value;
    }
    if (value == "null" || value.find("\"status\":") != std::string::npos) {
      ++(value == "null" ? tombstones : markers);
      EXPECT_TRUE(value != "null" || topic == "fbcdc.ORDERS") << "a tombstone on " << topic;
      continue;
    }
    arrived[identity(value)] = masked(value);
  }
  EXPECT_EQ("", compare(expected(), arrived));
  EXPECT_GE(tombstones, 8u);  // the ORDERS rows among the deletes of 20, 10 and 30 rows
  EXPECT_GE(markers, 6u);     // BEGIN and END of three logs, one of them perhaps twice

  writeFile(dir / "client.properties", "# the cluster\n   bootstrap.servers = " + brokers +
                                           "  \n\nmessage.timeout.ms=3000\nacks=not-a-value\n");
  writeFile(dir / "bad.properties", "# fine\nlinger.ms=5\nsasl.password secret\n");
  const std::string transcript =
      transcriptOf(dir, linesOf("sinks/golden/kafka_properties.txt")[0].second,
                   {{"L/", logs}, {"$/", dir.path()}, {"NOWHERE", "127.0.0.1:1"}},
                   [](const std::string& text, bool err) { return err ? text : ""; });
  expectGolden("sinks/golden/kafka_properties.txt",
               std::regex_replace(std::regex_replace(replaceAll(transcript, dir.path(), "$/"),
                                                     std::regex("%[0-9]\\|[^\n]*\n"), ""),
                                  std::regex("[0-9a-f]{16}_[0-9a-f]{16}|the first to [^:]*"), "#"));
  EXPECT_NE(std::string::npos, readText(dir / "1.pos").find("_0000000000000003.fbl"));
  for (const char* missing : {"2.pos", "3.pos", "4.pos", "5.pos"})
    EXPECT_FALSE(fileExists(dir / missing)) << missing;
  rd_kafka_mock_cluster_destroy(cluster);
  rd_kafka_destroy(host);
}

TEST_F(SinksTest, RedisHoldsEveryEventExactlyOnceAfterKills) {
  RedisServer server(dir.path());
  ASSERT_TRUE(server.ready()) << "redis-server did not start: " << server.errors();
  Strings follow = {"follow", logs, "--sink", "redis", "--redis", server.address()};
  std::mt19937 random(3);
  std::uint64_t number = 1;
  runKilledWhilePublishing(dir, follow, 6, 4, random, 20000,
                           [&] { publish(number++, 1 + static_cast<int>(random() % 300)); });
  follow.push_back("--once");
  FbcdcOutcome r = runFbcdc(dir, follow);
  ASSERT_EQ(0, r.status) << r.err;

  // A log the server cannot take whole stops the follower with the position before it: a key of
  // another type (nothing of the log written), a stream whose last possible ID is taken, so that
  // its XADD fails inside EXEC after the others ran (the position put back before the log), and
  // a position another follower writes while this one runs (nothing written, that one's left).
  const std::string position = server.command({"GET", "fbcdc.checkpoint"});
  ASSERT_NE("", position);
  publish(number++, 12);
  const std::string orders = server.command({"XLEN", "fbcdc:ORDERS"});
  // What the test does first, what the follower says, and whether nothing of the log is written.
  const std::tuple<Strings, const char*, bool> refusals[] = {
      {{"SET", "fbcdc:LINES", "not-a-stream"}, "WRONGTYPE fbcdc:LINES", true},
      {{"XADD", "fbcdc:LINES", "18446744073709551615-18446744073709551615", "f", "v"},
       "the position was put back",
       false},
  };
  for (const auto& [before, says, nothingWritten] : refusals) {
    SCOPED_TRACE(says);
    server.command({"DEL", "fbcdc:LINES"});
    server.command({"SET", "fbcdc.checkpoint", position});
    server.command(before);
    r = runFbcdc(dir, follow);
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find(says)) << r.err;
    EXPECT_EQ(position, server.command({"GET", "fbcdc.checkpoint"}));
    if (nothingWritten) {
      EXPECT_EQ(orders, server.command({"XLEN", "fbcdc:ORDERS"}));
    }
  }
  {
    RedisSink::Options o;
    RedisSink::setAddress(o, server.address());
    RedisSink sink(o, EventFormat());
    sink.loadPosition();
    const std::string ordersNow = server.command({"XLEN", "fbcdc:ORDERS"});
    server.command({"SET", "fbcdc.checkpoint", "another follower's"});
    sink.setPositionAfterLog("this follower's");
    EXPECT_THAT([&] { sink.send(LogDirectory::list(logs).back()); },
                ThrowsMessage<std::runtime_error>(HasSubstr("another follower")));
    EXPECT_EQ("another follower's", server.command({"GET", "fbcdc.checkpoint"}));
    EXPECT_EQ(ordersNow, server.command({"XLEN", "fbcdc:ORDERS"}));
  }
  // The LINES events of earlier logs went with the key: they are sent again from the start.
  server.command({"DEL", "fbcdc:LINES", "fbcdc.checkpoint", "fbcdc:ORDERS", "fbcdc:transaction"});
  r = runFbcdc(dir, follow);
  ASSERT_EQ(0, r.status) << r.err;

  // The streams' entries, one a line, each an id, its field's name and its value (the JSON).
  Events arrived;
  std::size_t duplicates = 0;
  for (const char* stream : {"fbcdc:ORDERS", "fbcdc:LINES", "fbcdc:transaction"}) {
    std::istringstream entries(server.command({"XRANGE", stream, "-", "+"}));
    for (std::string value; std::getline(entries, value);) {
      if (value.empty() || value[0] != '{') continue;
      duplicates += arrived.count(identity(value));
      arrived[identity(value)] = masked(value);
    }
  }
  EXPECT_EQ(0u, duplicates);
  EXPECT_EQ("", compare(expected(), arrived));
}

// follow --sink redis (and status, prune) against a real redis-server that wants a login: the
// default user's password (requirepass) from FBCDC_REDIS_PASSWORD or --redis-password-file, an ACL
// user limited to the fbcdc keys and the commands the sink uses, a database other than 0, a Unix
// socket, and TLS through a local stunnel tunnel to redis-server's own TLS port on a certificate
// made here; status and prune read the position as the same logins. A refused login is one line,
// exit status 1, and nothing written. The transcript is golden/redis_logins.txt, with the test's
// directory as $/ and the ports as names.
using RedisAuthTest = SinksTest;
TEST_F(RedisAuthTest, PasswordAclUserDatabaseSocketAndTls) {
  for (const char* tool : {"/usr/bin/openssl", "/usr/bin/stunnel4"})
    if (::access(tool, X_OK) != 0)
      GTEST_SKIP() << tool << " is not installed: no TLS server to test with";
  // A certificate for 127.0.0.1 and localhost, signed by itself: the tunnel trusts it alone.
  const std::string d = dir.path();
  ASSERT_EQ(0,
            waitFor(spawn({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
                           d + "redis.key", "-out", d + "redis.crt", "-days", "2", "-subj",
                           "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost"},
                          d + "openssl.out", d + "openssl.err")))
      << readText(d + "openssl.err");
  const int tlsPort = loopbackPort();
  const std::string socket = dir / "redis.sock";
  RedisServer server(
      dir.path(), {"--requirepass", "server-pw", "--unixsocket", socket, "--unixsocketperm", "700",
                   "--tls-port", std::to_string(tlsPort), "--tls-cert-file", dir / "redis.crt",
                   "--tls-key-file", dir / "redis.key", "--tls-ca-cert-file", dir / "redis.crt",
                   "--tls-auth-clients", "no"});
  ASSERT_TRUE(server.ready()) << "redis-server did not start: " << server.errors();
  ASSERT_EQ("OK", server.command({"AUTH", "server-pw"}));
  // The commands the sink sends; keys under fbcdc only.
  ASSERT_EQ("OK", server.command({"ACL",     "SETUSER",       "fbcdc",    "on",      ">fbcdc-pw",
                                  "~fbcdc*", "resetchannels", "-@all",    "+type",   "+get",
                                  "+set",    "+xadd",         "+del",     "+watch",  "+unwatch",
                                  "+multi",  "+exec",         "+discard", "+select", "+auth"}));

  // A local tunnel: plain TCP on a loopback port, TLS to the server, its certificate checked.
  const int tunnelPort = loopbackPort();
  writeFile(dir / "stunnel.conf",
            "foreground = yes\npid =\n[redis]\nclient = yes\naccept = 127.0.0.1:" +
                std::to_string(tunnelPort) + "\nconnect = 127.0.0.1:" + std::to_string(tlsPort) +
                "\nCAfile = " + dir / "redis.crt" + "\nverifyChain = yes\ncheckHost = localhost\n");
  const pid_t tunnel =
      spawn({"/usr/bin/stunnel4", dir / "stunnel.conf"}, dir / "stunnel.out", dir / "stunnel.err");
  for (int i = 0; i < 100 && !loopbackAccepts(tunnelPort); ++i) ::usleep(50000);

  for (const char* f : {"server", "fbcdc", "wrong"}) {
    writeFile(dir / (f + std::string(".pw")), f + std::string(f[0] == 'w' ? "\n" : "-pw\n"));
    ::chmod((dir / (f + std::string(".pw"))).c_str(), 0600);
  }
  publish(1, 0);
  // The lines of the golden file: the default user's password from FBCDC_REDIS_PASSWORD or a file,
  // the ACL user (in database 3 too), the socket, the tunnel; then a wrong password, the ACL user
  // with the default user's, none, the ACL user outside its keys, a database that is not there.
  // Each run's stream prefix is fbcdc and its number, but for the user outside its keys; what it
  // sends goes to the database of --redis-db=N, or 0. TCP and TUNNEL: the server's plain port and
  // the tunnel's.
  std::string transcript = transcriptOf(dir, linesOf("sinks/golden/redis_logins.txt")[0].second,
                                        {{"L/", logs},
                                         {"$/", dir.path()},
                                         {"TCP", server.address()},
                                         {"TUNNEL", "127.0.0.1:" + std::to_string(tunnelPort)}});
  // The TLS port without the tunnel: one line, whatever the server answers to plain text.
  const FbcdcOutcome tls = runFbcdc(dir,
                                    {"follow", logs, "--once", "--sink", "redis", "--stream-prefix",
                                     "fbcdc11", "--redis", "127.0.0.1:" + std::to_string(tlsPort)},
                                    {"FBCDC_REDIS_PASSWORD=server-pw"});
  EXPECT_EQ(1, tls.status);
  EXPECT_EQ(1, std::count(tls.err.begin(), tls.err.end(), '\n')) << tls.err;
  // Then what reached Redis, in every database the server has (positions' times masked): each
  // accepted run's log and position, in the database it asked for, and nothing of a refused one.
  for (int db = 0; db < 16; ++db) {
    ASSERT_EQ("OK", server.command({"SELECT", std::to_string(db)}));
    std::istringstream found(server.command({"KEYS", "*"}));
    Strings keys;
    for (std::string key; std::getline(found, key);) keys.push_back(key);
    std::sort(keys.begin(), keys.end());
    for (const std::string& key : keys) {
      const std::string type = server.command({"TYPE", key});
      transcript += "database " + std::to_string(db) + ": " + key + " " + type + " " +
                    (type == "string" ? server.command({"GET", key}) : "\n");
    }
  }
  ASSERT_EQ("OK", server.command({"SELECT", "0"}));
  expectGolden(
      "sinks/golden/redis_logins.txt",
      clockMasked(std::regex_replace(
          replaceAll(replaceAll(transcript, dir.path(), "$/"), server.address(), "TCP"),
          std::regex("[0-9]{19} [0-9a-f]{16}_|[0-9a-f]{16}_(?=[0-9a-f]{16}\\.fbl)"), "#_")));

  stop(tunnel, SIGTERM);
}

}  // namespace
