// fbcdc follow into Kafka (librdkafka's mock cluster, in this process) and Redis Streams (a real
// redis-server on a free loopback port): every event of every log arrives, and broker failures and
// kills in the middle lose nothing.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <regex>

#include "Database.h"
#include "EventWriter.h"
#include "LiteralRow.h"
#include "LogDirectory.h"
#include "PluginFixture.h"
#include "Processes.h"
#include "RedisServer.h"
#include "StreamSink.h"

namespace {

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
    EXPECT_EQ(0,
              waitFor(spawn({FBCDC_CLI_PATH, "dump", logs}, dir / "dump.jsonl", dir / "dump.err")));
    Events events;
    std::istringstream in(readText(dir / "dump.jsonl"));
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

// Reads every message of the topics back; returns them by topic.
std::map<std::string, std::vector<std::pair<std::string, std::string>>> consume(
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
  std::map<std::string, std::vector<std::pair<std::string, std::string>>> messages;
  for (int idle = 0; idle < 30;) {
    rd_kafka_message_t* m = rd_kafka_consumer_poll(consumer, 100);
    idle = m && !m->err ? 0 : idle + 1;
    if (m && !m->err) {
      EXPECT_NE(nullptr, m->key);
      messages[rd_kafka_topic_name(m->rkt)].emplace_back(
          std::string(static_cast<const char*>(m->key), m->key_len),
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
  auto follow = [&](const std::string& err) {
    // One message per request, so that an injected error falls in the middle of a log.
    return waitFor(
        spawn({FBCDC_CLI_PATH, "follow", logs, "--once", "--sink", "kafka", "--brokers", brokers,
               "--checkpoint", checkpoint, "--tombstones", "--transactions", "--keys-from",
               dir / "source.fdb", "-X", "linger.ms=0", "-X", "batch.num.messages=1"},
              dir / "follow.out", err));
  };
  publish(1, 20);
  publish(2, 10);
  ASSERT_EQ(0, follow(dir / "err1.txt")) << readText(dir / "err1.txt");
  EXPECT_NE(std::string::npos, readText(dir / "err1.txt").find("LINES")) << "said at start";
  const std::string before = readText(checkpoint);
  EXPECT_NE(std::string::npos, before.find("_0000000000000002.fbl"));

  publish(3, 30);
  rd_kafka_mock_push_request_errors(
      cluster, kProduceRequest, 6, RD_KAFKA_RESP_ERR_NO_ERROR, RD_KAFKA_RESP_ERR_NO_ERROR,
      RD_KAFKA_RESP_ERR_NO_ERROR, RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED,
      RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED, RD_KAFKA_RESP_ERR_TOPIC_AUTHORIZATION_FAILED);
  EXPECT_EQ(1, follow(dir / "err2.txt"));
  EXPECT_NE(std::string::npos, readText(dir / "err2.txt").find("_0000000000000003.fbl"))
      << readText(dir / "err2.txt");
  EXPECT_EQ(before, readText(checkpoint)) << "the checkpoint stays before the failed log";
  ASSERT_EQ(0, follow(dir / "err3.txt")) << readText(dir / "err3.txt");

  const auto topics = consume(brokers, {"fbcdc.ORDERS", "fbcdc.LINES", "fbcdc.transaction"});
  Events arrived;
  std::size_t tombstones = 0, markers = 0;
  const std::regex id("\"ID\":([0-9]+)");
  for (const auto& [topic, messages] : topics) {
    for (const auto& [key, value] : messages) {
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
  }
  EXPECT_EQ("", compare(expected(), arrived));
  EXPECT_GE(tombstones, 8u);  // the ORDERS rows among the deletes of 20, 10 and 30 rows
  EXPECT_GE(markers, 6u);     // BEGIN and END of three logs, one of them perhaps twice
  rd_kafka_mock_cluster_destroy(cluster);
  rd_kafka_destroy(host);
}

TEST_F(SinksTest, RedisHoldsEveryEventExactlyOnceAfterKills) {
  RedisServer server(dir.path());
  ASSERT_TRUE(server.ready()) << "redis-server did not start: " << server.errors();
  redisContext* redis = server.context();
  const std::string redisAddress = server.address();
  std::vector<std::string> follow = {FBCDC_CLI_PATH, "follow",  logs,        "--sink",
                                     "redis",        "--redis", redisAddress};
  std::mt19937 random(3);
  std::uint64_t number = 1;
  for (int round = 0; round < 6; ++round) {
    const pid_t pid = spawn(follow, dir / "follow.out", dir / "follow.err");
    for (int i = 0; i < 4; ++i) {
      publish(number++, 1 + static_cast<int>(random() % 300));
      ::usleep(random() % 20000);
    }
    stop(pid, SIGKILL);
  }
  follow.push_back("--once");
  ASSERT_EQ(0, waitFor(spawn(follow, dir / "follow.out", dir / "follow.err")))
      << readText(dir / "follow.err");

  // A key under the prefix that is not a stream: the log that would write it is refused whole,
  // its other entries and the position stay out, and once the key is gone it arrives whole.
  // run: a command's string reply, "" for any other.
  auto run = [&](const char* fmt, const char* key) {
    auto* reply = static_cast<redisReply*>(redisCommand(redis, fmt, key));
    const std::string text = reply->type == REDIS_REPLY_STRING ? reply->str : "";
    freeReplyObject(reply);
    return text;
  };
  const std::string position = run("GET %s", "fbcdc.checkpoint");
  ASSERT_NE("", position);
  run("SET %s not-a-stream", "fbcdc:LINES");
  publish(number++, 12);
  EXPECT_EQ(1, waitFor(spawn(follow, dir / "follow.out", dir / "follow.err")));
  EXPECT_NE(std::string::npos, readText(dir / "follow.err").find("WRONGTYPE fbcdc:LINES"))
      << readText(dir / "follow.err");
  EXPECT_EQ(position, run("GET %s", "fbcdc.checkpoint")) << "the position stays before the log";
  // The LINES events of earlier logs went with the key: they are sent again from the start.
  for (const char* key : {"fbcdc:LINES", "fbcdc.checkpoint", "fbcdc:ORDERS", "fbcdc:transaction"})
    run("DEL %s", key);
  ASSERT_EQ(0, waitFor(spawn(follow, dir / "follow.out", dir / "follow.err")))
      << readText(dir / "follow.err");

  Events arrived;
  std::size_t duplicates = 0;
  for (const char* stream : {"fbcdc:ORDERS", "fbcdc:LINES", "fbcdc:transaction"}) {
    auto* reply = static_cast<redisReply*>(redisCommand(redis, "XRANGE %s - +", stream));
    ASSERT_EQ(REDIS_REPLY_ARRAY, reply->type);
    for (std::size_t i = 0; i < reply->elements; ++i) {
      const redisReply* fields = reply->element[i]->element[1];
      const std::string value(fields->element[1]->str, fields->element[1]->len);
      duplicates += arrived.count(identity(value));
      arrived[identity(value)] = masked(value);
    }
    freeReplyObject(reply);
  }
  EXPECT_EQ(0u, duplicates);
  EXPECT_EQ("", compare(expected(), arrived));
}

}  // namespace
