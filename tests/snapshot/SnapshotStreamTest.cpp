// A snapshot taken between two captured workloads, followed with the logs: every row as a read
// event first, then exactly the changes the snapshot does not contain, to stdout and to Redis
// (killed at random points and run again: each event once). SnapshotServerTest fills a replica
// from a snapshot and the logs.
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <unistd.h>

#include <map>
#include <random>
#include <set>
#include <sstream>

#include "CaptureDriver.h"
#include "Database.h"
#include "LogDirectory.h"
#include "Processes.h"
#include "RedisServer.h"
#include "SnapshotManifest.h"
#include "SnapshotWriter.h"
#include "TestFiles.h"

namespace {

void capture(const TempDir& dir, std::uint64_t seed, std::uint64_t transactions) {
  writeFile(dir / "plugin.conf", "OutputDirectory = " + dir.path() + "logs\n");
  CaptureOptions o;
  o.database = dir / "source.fdb";
  o.pluginLibrary = FBCDC_PLUGIN_PATH;
  o.configFile = dir / "plugin.conf";
  o.outputDirectory = dir / "logs";
  o.seed = seed;
  o.threads = 2;
  o.transactions = transactions;
  o.maxBlob = 64 << 10;
  o.hotRows = 4;
  CaptureDriver(o).run();
}

// A source with rows and logs before the snapshot and logs after it.
class SnapshotBetweenWorkloads : public ::testing::Test {
 protected:
  void SetUp() override {
    capture(dir, 21, 60);
    Database db(dir / "source.fdb", false);
    SnapshotOptions o;
    o.output = dir / "snap";
    o.chunkRows = 25;
    SnapshotWriter(db, o).run();
    db.commit();
    capture(dir, 22, 50);
  }

  TempDir dir;
};

// The lines of a file.
std::vector<std::string> lines(const std::string& path) {
  std::vector<std::string> out;
  std::istringstream in(readText(path));
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// "file#index" of an event, and the event without its time of sending.
std::string identity(const rapidjson::Document& d) {
  return std::string(d["source"]["file"].GetString()) + "#" +
         std::to_string(d["source"]["index"].GetUint());
}
std::string masked(std::string event) {
  const std::size_t at = event.find("\"ts_ms\":");
  const std::size_t end = event.find(',', at);
  return event.erase(at, end - at);
}

// follow --snapshot to stdout: every row as a read event, then every log the snapshot does not
// contain and none that it does; to Redis, killed and run again, the same events, each once.
TEST_F(SnapshotBetweenWorkloads, FollowSendsEveryRowThenExactlyTheChangesNotContained) {
  const auto manifest = SnapshotManifest::load(dir / "snap");
  ASSERT_TRUE(manifest && manifest->complete);
  ASSERT_EQ(0, waitFor(spawn(
                   {FBCDC_CLI_PATH, "follow", dir / "logs", "--snapshot", dir / "snap", "--once"},
                   dir / "out.json", dir / "err.txt")))
      << readText(dir / "err.txt");
  const std::vector<std::string> out = lines(dir / "out.json");
  const std::uint64_t rows = manifest->rows();
  ASSERT_GE(out.size(), rows);
  std::set<std::uint64_t> sent;
  std::map<std::string, std::string> events;  // by identity, without the time of sending
  for (std::size_t i = 0; i < out.size(); ++i) {
    rapidjson::Document d;
    d.Parse(out[i].c_str());
    ASSERT_FALSE(d.HasParseError()) << out[i];
    events[identity(d)] = masked(out[i]);
    const std::string op = d["op"].GetString();
    if (i < rows) {
      EXPECT_EQ("r", op) << i;
      const char* want = i + 1 == rows ? "last" : "true";
      EXPECT_STREQ(want, d["source"]["snapshot"].GetString()) << i;
    } else {
      EXPECT_NE("r", op) << i;
      EXPECT_FALSE(d["source"].HasMember("snapshot")) << i;
      sent.insert(std::stoull(d["source"]["transaction"].GetString()));
    }
  }
  // Every log the snapshot does not contain sent, none that it does.
  std::set<std::uint64_t> expected;
  std::size_t contained = 0;
  for (const LogFile& log : LogDirectory::list(dir / "logs")) {
    const bool in = manifest->contains("ITEMS", log.parsed.transaction);
    contained += in;
    if (!in) expected.insert(log.parsed.transaction);
  }
  EXPECT_GT(contained, 0u);
  EXPECT_GT(expected.size(), 0u);
  EXPECT_EQ(expected, sent);

  // The same to Redis by a follower killed at random points and run again: each event once.
  RedisServer redis(dir.path());
  ASSERT_TRUE(redis.ready()) << redis.errors();
  std::mt19937 random(3);
  const std::vector<std::string> follow = {FBCDC_CLI_PATH,  "follow", dir / "logs", "--snapshot",
                                           dir / "snap",    "--sink", "redis",      "--redis",
                                           redis.address(), "--once"};
  int killed = 0;
  for (int run = 0;; ++run) {
    const pid_t pid = spawn(follow, "/dev/null", dir / "err.txt");
    ASSERT_GT(pid, 0);
    if (run < 6) ::usleep(2000 + random() % 20000);
    const int status = run < 6 ? stop(pid, SIGKILL) : waitFor(pid);
    if (status == -1) {
      ++killed;
      continue;
    }
    ASSERT_EQ(0, status) << readText(dir / "err.txt");
    if (run >= 6) break;
  }
  std::map<std::string, std::string> arrived;
  std::size_t duplicates = 0;
  // Statements go to the stream "transaction".
  for (const char* table : {"ITEMS", "LINES", "NOTES", "COUNTERS", "transaction"}) {
    const std::string stream = std::string("fbcdc:") + table;
    auto* reply =
        static_cast<redisReply*>(redisCommand(redis.context(), "XRANGE %s - +", stream.c_str()));
    ASSERT_EQ(REDIS_REPLY_ARRAY, reply->type);
    for (std::size_t i = 0; i < reply->elements; ++i) {
      const redisReply* fields = reply->element[i]->element[1];
      const std::string value(fields->element[1]->str, fields->element[1]->len);
      rapidjson::Document d;
      d.Parse(value.c_str());
      duplicates += arrived.count(identity(d));
      arrived[identity(d)] = masked(value);
    }
    freeReplyObject(reply);
  }
  EXPECT_EQ(0u, duplicates);
  EXPECT_GT(killed, 0);
  EXPECT_EQ(events.size(), arrived.size());
  for (const auto& [id, event] : events) {
    const auto found = arrived.find(id);
    if (found == arrived.end())
      ADD_FAILURE() << "missing " << event;
    else
      EXPECT_EQ(event, found->second);
  }
}

}  // namespace
