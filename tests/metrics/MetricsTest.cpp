// Metrics and self-pruning of the long-running consumers, as a monitoring system and an operator
// meet them: a real follower and a real applier (the built fbcdc) serve Prometheus's text format on
// a loopback port, which promtool accepts and whose values are what was fed; status writes the same
// backlog families for the node exporter; follow --prune removes what it took and nothing it still
// needs, across kills and restarts; stderr lines carry their levels in the style of where they go.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "ConsumerMetrics.h"
#include "Database.h"
#include "FbcdcRuns.h"
#include "LiteralRow.h"
#include "LogDirectory.h"
#include "MetricsServer.h"
#include "PluginFixture.h"

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

// The reply to GET path at port on the loopback address, its body only unless whole; "" when
// nothing answers.
std::string get(int port, const std::string& path = "/metrics", bool whole = false) {
  const int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<std::uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string reply;
  if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
    const std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    if (::write(s, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
      char buffer[8192];
      for (ssize_t n; (n = ::read(s, buffer, sizeof buffer)) > 0;) reply.append(buffer, n);
    }
  }
  ::close(s);
  const std::size_t body = reply.find("\r\n\r\n");
  return whole ? reply : body == std::string::npos ? "" : reply.substr(body + 4);
}

// promtool's verdict on a text of metrics: "" when it accepts it, else what it says.
std::string promtool(const TempDir& dir, const std::string& text) {
  writeFile(dir / "scraped.txt", text);
  const std::string command =
      "promtool check metrics < " + dir / "scraped.txt" + " > " + dir / "promtool.txt" + " 2>&1";
  const int status = std::system(command.c_str());
  return status == 0 ? "" : "promtool: " + readText(dir / "promtool.txt");
}

// The port of the "metrics of ... at http://127.0.0.1:PORT/metrics" line in the file err, waiting
// for it up to a minute; 0 when it does not come.
int announcedPort(const std::string& err) {
  static const std::regex line("at http://127\\.0\\.0\\.1:([0-9]+)/metrics");
  for (int i = 0; i < 600; ++i) {
    std::smatch m;
    const std::string text = fileExists(err) ? readText(err) : "";
    if (std::regex_search(text, m, line)) return std::stoi(m[1]);
    ::usleep(100000);
  }
  return 0;
}

class MetricsTest : public PluginFixture {
 protected:
  // Publishes the next log, of transaction 10, 11, ...: k + 1 inserts into A and k into B (keys
  // from 100 k on) and one statement.
  void publish(int k) {
    const auto number = static_cast<std::uint64_t>(10 + fed.size());
    ReplTransaction* t = begin(number);
    for (int i = 0; i < 2 * k + 1; ++i) {
      LiteralRow row(i <= k ? "A" : "B");
      row.addLong("ID", 100 * k + i);
      EXPECT_EQ(0, t->insertRecord(status, nullptr, nullptr, &row)) << status.text();
    }
    EXPECT_EQ(0, t->executeSql(status, "UPDATE A SET ID = ID WHERE ID < 0", 1));
    EXPECT_EQ(0, t->commit(status));
    t->dispose();
    for (const LogFile& file : LogDirectory::list(logs))
      if (file.parsed.transaction == number) return fed.push_back(file);
    ADD_FAILURE() << "log " << number << " not published";
  }

  // Waits up to a minute until the consumer's fbcdc_logs_total is logs and it has stored its
  // position after the last (fbcdc_logs_waiting 0); label: its labels, "{consumer=...}". The last
  // scrape.
  std::string scrapeUntil(int port, const std::string& label, int logs) {
    std::string text;
    for (int i = 0; i < 600; ++i) {
      text = get(port);
      if (text.find("fbcdc_logs_total" + label + " " + std::to_string(logs) + "\n") !=
              std::string::npos &&
          text.find("fbcdc_logs_waiting" + label + " 0\n") != std::string::npos)
        break;
      ::usleep(100000);
    }
    return text;
  }

  // A text of metrics as the golden file holds it: the test's directory as $/, a publication time
  // as the log fed at that time (to a millisecond: "t3"), a lag as the one that began a second and
  // a half or less before it was read ("now - t0"), and the histogram's timings as #.
  std::string masked(const std::string& text) const {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const double seconds = static_cast<double>(now.tv_sec) + now.tv_nsec / 1e9;
    std::istringstream in(replaceAll(text, dir.path(), "$/"));
    std::string out;
    Strings family;  // the samples since the last comment, sorted: their order is a hash's
    const auto flush = [&] {
      std::sort(family.begin(), family.end());
      for (const std::string& sample : family) out += sample + "\n";
      family.clear();
    };
    for (std::string line; std::getline(in, line);) {
      const std::size_t space = line.rfind(' ');
      if (line[0] == '#' || space == std::string::npos) {
        flush();
        out += line + "\n";
        continue;
      }
      const std::string name = line.substr(0, line.find('{'));
      const double value = std::stod(line.substr(space + 1));
      std::string shown = line.substr(space + 1);
      for (std::size_t k = 0; k < fed.size(); ++k) {
        const double at = static_cast<double>(fed[k].publishedAt) / 1e9;
        if (name == "fbcdc_last_log_published_timestamp_seconds" && std::fabs(value - at) < 1e-3)
          shown = "t" + std::to_string(k);
        if (name == "fbcdc_lag_seconds" && value > 0 && seconds - value - at > -1e-3 &&
            seconds - value - at < 1.5 && shown[0] != 'n')
          shown = "now - t" + std::to_string(k);
      }
      if (name.find("_seconds_bucket") != std::string::npos ||
          name.find("_seconds_sum") != std::string::npos)
        shown = "#";
      family.push_back(line.substr(0, space + 1) + shown);
    }
    flush();
    return out;
  }

  std::vector<LogFile> fed;
};

// What --metrics binds for each address a user may give, or why it refuses it:
// golden/addresses.txt.
TEST(MetricsAddressTest, LoopbackUnlessAHostIsNamed) {
  std::string text;
  for (const char* given :
       {"9187", ":9187", "0.0.0.0:65535", "localhost:09187", "[::1]:9187", "", "host:", "65536",
        "127.0.0.1:-1", "::1:9187", "[::1:9187", "a b:9187"}) {
    std::string bound;
    try {
      bound = MetricsServer::bindAddress(given);
    } catch (const std::invalid_argument& e) {
      bound = std::string("refused: ") + e.what();
    }
    text += std::string("\"") + given + "\" " + bound + "\n";
  }
  expectGolden("metrics/golden/addresses.txt", text);
  // A port taken is refused by the second server, with the address named.
  auto metrics = std::make_shared<ConsumerMetrics>("checkpoint:x");
  MetricsServer first(":0", metrics);
  ASSERT_GT(first.port(), 0);
  EXPECT_EQ("http://127.0.0.1:" + std::to_string(first.port()) + "/metrics", first.url());
  EXPECT_THAT(get(first.port(), "/metrics", true), ::testing::StartsWith("HTTP/1.0 200 OK\r\n"));
  EXPECT_THAT(get(first.port()), HasSubstr("fbcdc_logs_total{consumer=\"checkpoint:x\"} 0\n"));
  EXPECT_THAT(get(first.port(), "/", true), ::testing::StartsWith("HTTP/1.0 404 Not Found\r\n"));
  EXPECT_THAT([&] { MetricsServer second(std::to_string(first.port()), metrics); },
              ::testing::ThrowsMessage<std::runtime_error>(
                  HasSubstr("127.0.0.1:" + std::to_string(first.port()))));
}

// What a follower serves after five logs and after two more published while it runs, what an
// applier that resolves one conflict serves, and what status writes for the node exporter of a
// consumer one log behind and one that took nothing: each accepted by promtool, all held against
// golden/metrics.txt (masked()). Then follow --prune through a range removes what it took and
// leaves the logs after it.
TEST_F(MetricsTest, ExpositionsOfFollowApplyAndStatus) {
  std::string transcript;
  const auto expose = [&](const std::string& what, const std::string& text) {
    EXPECT_EQ("", promtool(dir, text)) << text;
    transcript += "## " + what + "\n" + masked(text);
  };
  for (int k = 0; k < 5; ++k) publish(k);
  const std::string checkpoint = dir / "follow.pos";
  const pid_t follower =
      startFbcdc({"follow", logs, "--checkpoint", checkpoint, "--metrics", "127.0.0.1:0"},
                 dir / "events.jsonl", dir / "follow.txt");
  int port = announcedPort(dir / "follow.txt");
  ASSERT_GT(port, 0) << readText(dir / "follow.txt");
  const std::string follows = "{consumer=\"checkpoint:" + checkpoint + "\"}";
  expose("follow, five logs taken", scrapeUntil(port, follows, 5));
  for (int k = 5; k < 7; ++k) publish(k);
  expose("follow, two more", scrapeUntil(port, follows, 7));
  EXPECT_EQ(0, stop(follower, SIGTERM)) << readText(dir / "follow.txt");

  const std::string replica = dir / "replica.fdb";
  {
    Database db(replica, true);
    db.executeAlone("CREATE TABLE A (ID INTEGER NOT NULL PRIMARY KEY)");
    db.executeAlone("CREATE TABLE B (ID INTEGER NOT NULL PRIMARY KEY)");
    db.executeAlone("INSERT INTO A VALUES (0)");  // the first log's first row
  }
  const pid_t applier = startFbcdc({"apply", "--database", replica, "--conflicts", "upsert",
                                    "--follow", "--metrics", ":0", logs},
                                   dir / "out.txt", dir / "apply.txt");
  port = announcedPort(dir / "apply.txt");
  ASSERT_GT(port, 0) << readText(dir / "apply.txt");
  expose("apply --conflicts upsert",
         scrapeUntil(port, "{consumer=\"replica:" + replica + "\"}", 7));
  EXPECT_EQ(0, stop(applier, SIGTERM)) << readText(dir / "apply.txt");

  ::sleep(2);  // lags that begin at the last log and at the others are told apart
  publish(7);
  const FbcdcOutcome status =
      runFbcdc(dir, {"status", logs, "--checkpoint", checkpoint, "--checkpoint", dir / "none.pos",
                     "--format", "prometheus"});
  EXPECT_EQ(0, status.status) << status.err;
  expose("status", status.out);
  expectGolden("metrics/golden/metrics.txt", transcript);

  const FbcdcOutcome ranged = runFbcdc(dir, {"follow", logs, "--once", "--checkpoint",
                                             dir / "range.pos", "--prune", "--to", fed[1].name});
  ASSERT_EQ(0, ranged.status) << ranged.err;
  // Logs of one clock tick may stay beside the position; the later ones always do.
  const Strings left = listDirectory(logs);
  for (std::size_t k = 2; k < fed.size(); ++k) EXPECT_THAT(left, Contains(fed[k].name));
  EXPECT_THAT(left, Not(Contains(fed[0].name)));
}

TEST_F(MetricsTest, FollowPruneKeepsWhatItStillNeeds) {
  // Followers with --prune are killed at random moments while logs are published, and restarted;
  // every log's events come out, and in the end only what the last position has not taken is left.
  const std::string checkpoint = dir / "follow.pos";
  std::mt19937 random(11);
  const Strings follow = {"follow", logs, "--checkpoint", checkpoint, "--prune"};
  int runs = runKilledWhilePublishing(dir, follow, 5, 6, random, 40000,
                                      [&] { publish(static_cast<int>(random() % 5)); });
  const pid_t pid =
      startFbcdc(follow, dir / ("run" + std::to_string(runs++) + ".out"), dir / "err.txt");
  for (int i = 0; i < 600 && !(fileExists(checkpoint) &&
                               readText(checkpoint).find(fed.back().name) != std::string::npos);
       ++i)
    ::usleep(100000);
  ::usleep(300000);  // the prune after the last log
  EXPECT_EQ(0, stop(pid, SIGTERM)) << readText(dir / "err.txt");
  EXPECT_EQ("", readText(dir / "err.txt"));

  std::set<std::string> published, seen;
  for (const LogFile& p : fed) published.insert(p.name);
  for (int i = 0; i < runs; ++i) {
    std::ifstream in(dir / ("run" + std::to_string(i) + ".out"));
    for (std::string line; std::getline(in, line);) {
      const std::size_t f = line.find("\"file\":\"");
      if (f != std::string::npos) seen.insert(line.substr(f + 8, 37));
    }
  }
  EXPECT_EQ(published, seen);
  // Everything was taken and pruned, also what a killed run had taken and not pruned yet; the prune
  // mark stays.
  EXPECT_EQ((Strings{"fbcdc-pruned.pos"}), listDirectory(logs));
}

// Refusals of the consumers' metrics and prune options, and the level of a stderr line in the style
// of where it goes: the journal's prefix (asked for, or where JOURNAL_STREAM names stderr itself,
// not another file), a time and a word, or nothing. The lines and their transcript are
// golden/refusals.txt, with the test's directory as $/ and times and ports masked.
TEST_F(MetricsTest, RefusalsAndLevels) {
  publish(0);
  ::unsetenv("FBCDC_LOG");
  ::unsetenv("JOURNAL_STREAM");
  struct stat err {};
  writeFile(dir / "err.txt", "");
  ASSERT_EQ(0, ::stat((dir / "err.txt").c_str(), &err));
  const std::string transcript =
      transcriptOf(dir, linesOf("metrics/golden/refusals.txt")[0].second,
                   {{"L/", logs},
                    {"$/", dir.path()},
                    {"@stderr", std::to_string(err.st_dev) + ":" + std::to_string(err.st_ino)}},
                   [](const std::string& text, bool err) { return err ? text : ""; });
  expectGolden("metrics/golden/refusals.txt",
               std::regex_replace(
                   replaceAll(transcript, dir.path(), "$/"),
                   std::regex("20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]"
                              "\\.[0-9]{3}Z|127\\.0\\.0\\.1:[0-9]+/"),
                   "#"));
}

}  // namespace
