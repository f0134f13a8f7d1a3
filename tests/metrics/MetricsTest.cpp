// Metrics and self-pruning of the long-running consumers, as a monitoring system and an operator
// meet them: a real follower and a real applier (the built fbcdc) serve Prometheus's text format
// on a loopback port, which promtool accepts and whose values are what was fed; status writes the
// same backlog families for the node exporter; follow --prune removes what it took and nothing it
// still needs, across kills and restarts; stderr lines carry their levels in the style of where
// they go.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "ConsumerMetrics.h"
#include "Database.h"
#include "LiteralRow.h"
#include "LogFile.h"
#include "MetricsServer.h"
#include "PluginFixture.h"
#include "Processes.h"

namespace {

using ::testing::HasSubstr;

pid_t start(const std::vector<std::string>& args, const std::string& out, const std::string& err) {
  std::vector<std::string> all = {FBCDC_CLI_PATH};
  all.insert(all.end(), args.begin(), args.end());
  return spawn(all, out, err);
}

// The whole reply to GET path at port on the loopback address; "" when nothing answers.
std::string get(int port, const std::string& path) {
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
  return reply;
}

// The body of GET /metrics at port; "" when nothing answers.
std::string scrape(int port) {
  const std::string reply = get(port, "/metrics");
  const std::size_t body = reply.find("\r\n\r\n");
  return body == std::string::npos ? "" : reply.substr(body + 4);
}

// promtool's verdict on a text of metrics: "" when it accepts it, else what it says.
std::string promtool(const TempDir& dir, const std::string& text) {
  writeFile(dir / "scraped.txt", text);
  const std::string command =
      "promtool check metrics < " + dir / "scraped.txt" + " > " + dir / "promtool.txt" + " 2>&1";
  const int status = std::system(command.c_str());
  return status == 0 ? "" : "promtool: " + readText(dir / "promtool.txt");
}

// The samples of a text, by the metric's name and labels as written ("name{a=\"b\"}").
std::map<std::string, double> samples(const std::string& text) {
  std::map<std::string, double> all;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const std::size_t space = line.rfind(' ');
    all[line.substr(0, space)] = std::stod(line.substr(space + 1));
  }
  return all;
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
  struct Published {
    std::string name;
    std::uint64_t bytes = 0;
    std::int64_t publishedAt = 0;
  };

  // Publishes a log of a inserts into A, b into B (keys from key on) and one statement; returns
  // its name, size and publication time.
  Published publish(std::uint64_t number, int a, int b, int key) {
    ReplTransaction* t = begin(number);
    for (int i = 0; i < a + b; ++i) {
      LiteralRow row(i < a ? "A" : "B");
      row.addLong("ID", key + i);
      EXPECT_EQ(0, t->insertRecord(status, nullptr, nullptr, &row)) << status.text();
    }
    EXPECT_EQ(0, t->executeSql(status, "UPDATE A SET ID = ID WHERE ID < 0", 1));
    EXPECT_EQ(0, t->commit(status));
    t->dispose();
    for (const std::string& name : listDirectory(logs)) {
      LogName parsed;
      LogFile file;
      if (LogName::parse(name, parsed) && parsed.published && parsed.transaction == number &&
          LogFile::examine(logs + name, file))
        return {name, readFile(logs + name).size(), file.publishedAt};
    }
    ADD_FAILURE() << "log " << number << " not published";
    return {};
  }

  // Waits up to a minute until the consumer's fbcdc_logs_total reaches logs and it has stored
  // its position after the last (fbcdc_logs_waiting 0); label: its labels, "{consumer=...}". The
  // last scrape.
  std::string scrapeUntil(int port, const std::string& label, double logs) {
    std::string text;
    for (int i = 0; i < 600; ++i) {
      text = scrape(port);
      auto all = samples(text);
      if (all.count("fbcdc_logs_total" + label) && all["fbcdc_logs_total" + label] >= logs &&
          all.count("fbcdc_logs_waiting" + label) && all["fbcdc_logs_waiting" + label] == 0)
        break;
      ::usleep(100000);
    }
    return text;
  }
};

TEST(MetricsAddressTest, LoopbackUnlessAHostIsNamed) {
  const struct {
    const char* given;
    const char* bound;  // "" when refused
  } cases[] = {
      {"9187", "127.0.0.1:9187"},
      {":9187", "127.0.0.1:9187"},
      {"0.0.0.0:65535", "0.0.0.0:65535"},
      {"localhost:09187", "localhost:9187"},
      {"[::1]:9187", "[::1]:9187"},
      {"", ""},
      {"host:", ""},
      {"65536", ""},
      {"127.0.0.1:-1", ""},
      {"::1:9187", ""},
      {"[::1:9187", ""},
      {"a b:9187", ""},
  };
  for (const auto& c : cases) {
    if (*c.bound) {
      EXPECT_EQ(c.bound, MetricsServer::bindAddress(c.given)) << c.given;
    } else {
      EXPECT_THROW(MetricsServer::bindAddress(c.given), std::invalid_argument) << c.given;
    }
  }
  // A port taken is refused by the second server, with the address named.
  auto metrics = std::make_shared<ConsumerMetrics>("checkpoint:x");
  MetricsServer first(":0", metrics);
  ASSERT_GT(first.port(), 0);
  EXPECT_EQ("http://127.0.0.1:" + std::to_string(first.port()) + "/metrics", first.url());
  EXPECT_THAT(get(first.port(), "/metrics"), ::testing::StartsWith("HTTP/1.0 200 OK\r\n"));
  EXPECT_THAT(scrape(first.port()), HasSubstr("fbcdc_logs_total{consumer=\"checkpoint:x\"} 0\n"));
  EXPECT_THAT(get(first.port(), "/"), ::testing::StartsWith("HTTP/1.0 404 Not Found\r\n"));
  try {
    MetricsServer second(std::to_string(first.port()), metrics);
    ADD_FAILURE() << "a second server on port " << first.port();
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), HasSubstr("127.0.0.1:" + std::to_string(first.port())));
  }
}

TEST_F(MetricsTest, FollowerServesWhatItTook) {
  // Logs k = 0..4: k + 1 rows of A, k rows of B, one statement.
  std::vector<Published> fed;
  for (int k = 0; k < 5; ++k) fed.push_back(publish(10 + k, k + 1, k, 100 * k));
  const std::string checkpoint = dir / "follow.pos";
  const std::string consumer = "checkpoint:" + checkpoint;
  const pid_t pid = start({"follow", logs, "--checkpoint", checkpoint, "--metrics", "127.0.0.1:0"},
                          dir / "events.jsonl", dir / "err.txt");
  const int port = announcedPort(dir / "err.txt");
  ASSERT_GT(port, 0) << readText(dir / "err.txt");
  const std::string label = "{consumer=\"" + consumer + "\"";
  const auto expectFed = [&](const std::string& text, std::size_t n) {
    EXPECT_EQ("", promtool(dir, text)) << text;
    auto all = samples(text);
    std::uint64_t bytes = 0;
    double a = 0, b = 0;
    for (std::size_t k = 0; k < n; ++k) {
      bytes += fed[k].bytes;
      a += k + 1;
      b += k;
    }
    const struct {
      std::string name;
      double value;
    } expected[] = {
        {"fbcdc_logs_total" + label + "}", static_cast<double>(n)},
        {"fbcdc_bytes_total" + label + "}", static_cast<double>(bytes)},
        {"fbcdc_events_total" + label + ",table=\"A\"}", a},
        {"fbcdc_events_total" + label + ",table=\"B\"}", b},
        {"fbcdc_events_total" + label + ",table=\"\"}", static_cast<double>(n)},
        {"fbcdc_errors_total" + label + "}", 0},
        {"fbcdc_sink_failures_total" + label + "}", 0},
        {"fbcdc_sink_delivery_seconds_count" + label + "}", static_cast<double>(n)},
        {"fbcdc_logs_waiting" + label + "}", 0},
        {"fbcdc_lag_seconds" + label + "}", 0},
        {"fbcdc_last_log_published_timestamp_seconds" + label + "}",
         static_cast<double>(fed[n - 1].publishedAt) / 1e9},
    };
    for (const auto& e : expected) {
      ASSERT_EQ(1u, all.count(e.name)) << e.name << " in\n" << text;
      // Times to the text format's precision (15 digits); counts exactly.
      const double margin = e.name.find("timestamp") != std::string::npos ? 1e-3 : 0;
      EXPECT_NEAR(e.value, all[e.name], margin) << e.name;
    }
  };
  expectFed(scrapeUntil(port, label + "}", 5), 5);
  // Logs published while it runs count on.
  for (int k = 5; k < 7; ++k) fed.push_back(publish(10 + k, k + 1, k, 100 * k));
  expectFed(scrapeUntil(port, label + "}", 7), 7);
  EXPECT_EQ(0, stop(pid, SIGTERM)) << readText(dir / "err.txt");
}

TEST_F(MetricsTest, ApplierServesConflictsAndRows) {
  const std::string replica = dir / "replica.fdb";
  {
    Database db(replica, true);
    db.executeAlone("CREATE TABLE A (ID INTEGER NOT NULL PRIMARY KEY)");
    db.executeAlone("CREATE TABLE B (ID INTEGER NOT NULL PRIMARY KEY)");
    // The first log's first row is there already: one conflict, resolved by upsert.
    db.executeAlone("INSERT INTO A VALUES (0)");
  }
  for (int k = 0; k < 3; ++k) publish(10 + k, 2, 1, 100 * k);
  const pid_t pid = start({"apply", "--database", replica, "--conflicts", "upsert", "--follow",
                           "--metrics", ":0", logs},
                          dir / "out.txt", dir / "err.txt");
  const int port = announcedPort(dir / "err.txt");
  ASSERT_GT(port, 0) << readText(dir / "err.txt");
  const std::string label = "{consumer=\"replica:" + replica + "\"}";
  const std::string text = scrapeUntil(port, label, 3);
  EXPECT_EQ("", promtool(dir, text)) << text;
  auto all = samples(text);
  EXPECT_EQ(3, all["fbcdc_logs_total" + label]) << text;
  EXPECT_EQ(12, all["fbcdc_events_total" + label]);  // 9 rows, 3 statements
  EXPECT_EQ(1, all["fbcdc_conflicts_resolved_total" + label]);
  EXPECT_EQ(3, all["fbcdc_sink_delivery_seconds_count" + label]);
  EXPECT_EQ(0, all["fbcdc_logs_waiting" + label]);
  EXPECT_EQ(0, stop(pid, SIGTERM)) << readText(dir / "err.txt");
}

TEST_F(MetricsTest, StatusWritesTheBacklogFamilies) {
  std::vector<Published> fed;
  for (int k = 0; k < 2; ++k) fed.push_back(publish(10 + k, 1, 0, 10 * k));
  const std::string taken = dir / "taken.pos";
  ASSERT_EQ(0, waitFor(start({"follow", logs, "--once", "--checkpoint", taken}, dir / "out.txt",
                             dir / "err.txt")))
      << readText(dir / "err.txt");
  ::sleep(1);
  fed.push_back(publish(12, 1, 0, 20));
  ASSERT_EQ(0, waitFor(start({"status", logs, "--checkpoint", taken, "--checkpoint",
                              dir / "none.pos", "--format", "prometheus"},
                             dir / "status.txt", dir / "err.txt")))
      << readText(dir / "err.txt");
  const std::string text = readText(dir / "status.txt");
  EXPECT_EQ("", promtool(dir, text)) << text;
  auto all = samples(text);
  const std::string one = "{consumer=\"checkpoint:" + taken + "\"}";
  const std::string none = "{consumer=\"checkpoint:" + dir / "none.pos" + "\"}";
  const double now = static_cast<double>(::time(nullptr));
  const struct {
    std::string name;
    double low, high;  // bounds of the value
  } expected[] = {
      {"fbcdc_logs_waiting" + one, 1, 1},
      {"fbcdc_logs_waiting" + none, 3, 3},
      {"fbcdc_last_log_published_timestamp_seconds" + one, fed[1].publishedAt / 1e9 - 1e-3,
       fed[1].publishedAt / 1e9 + 1e-3},
      // Lags run from the oldest log not taken until now.
      {"fbcdc_lag_seconds" + one, now - fed[2].publishedAt / 1e9 - 1,
       now - fed[2].publishedAt / 1e9 + 1},
      {"fbcdc_lag_seconds" + none, now - fed[0].publishedAt / 1e9 - 1,
       now - fed[0].publishedAt / 1e9 + 1},
  };
  for (const auto& e : expected) {
    ASSERT_EQ(1u, all.count(e.name)) << e.name << " in\n" << text;
    EXPECT_GE(all[e.name], e.low) << e.name;
    EXPECT_LE(all[e.name], e.high) << e.name;
  }
  // A consumer that took nothing has no last publication time.
  EXPECT_EQ(0u, all.count("fbcdc_last_log_published_timestamp_seconds" + none));
  EXPECT_GT(all["fbcdc_lag_seconds" + none], all["fbcdc_lag_seconds" + one]);
}

TEST_F(MetricsTest, FollowPruneKeepsWhatItStillNeeds) {
  // Followers with --prune are killed at random moments while logs are published, and restarted;
  // every log's events come out, and in the end only what the last position has not taken is left.
  const std::string checkpoint = dir / "follow.pos";
  std::mt19937 random(11);
  std::set<std::string> published;
  int runs = 0;
  std::uint64_t number = 100;
  for (int round = 0; round < 5; ++round) {
    const pid_t pid = start({"follow", logs, "--checkpoint", checkpoint, "--prune"},
                            dir / ("run" + std::to_string(runs++) + ".jsonl"), dir / "err.txt");
    for (int i = 0; i < 6; ++i) {
      published.insert(
          publish(number++, 1 + random() % 5, random() % 3, 1000 * round + 10 * i).name);
      ::usleep(random() % 40000);
    }
    stop(pid, SIGKILL);
  }
  const std::string last = *published.rbegin();
  const pid_t pid = start({"follow", logs, "--checkpoint", checkpoint, "--prune"},
                          dir / ("run" + std::to_string(runs++) + ".jsonl"), dir / "err.txt");
  for (int i = 0;
       i < 600 && !(fileExists(checkpoint) && readText(checkpoint).find(last) != std::string::npos);
       ++i)
    ::usleep(100000);
  ::usleep(300000);  // the prune after the last log
  EXPECT_EQ(0, stop(pid, SIGTERM)) << readText(dir / "err.txt");
  EXPECT_EQ("", readText(dir / "err.txt"));

  std::set<std::string> seen;
  for (int i = 0; i < runs; ++i) {
    std::ifstream in(dir / ("run" + std::to_string(i) + ".jsonl"));
    for (std::string line; std::getline(in, line);) {
      const std::size_t f = line.find("\"file\":\"");
      if (f != std::string::npos) seen.insert(line.substr(f + 8, 37));
    }
  }
  EXPECT_EQ(published, seen);
  // Everything was taken and pruned, also what a killed run had taken and not pruned yet; the
  // prune mark stays.
  EXPECT_EQ((Strings{"fbcdc-pruned.pos"}), listDirectory(logs));
}

TEST_F(MetricsTest, FollowPruneLeavesLogsItHasNotTaken) {
  // A range ends the follower early: the logs after it stay, those it took go.
  std::vector<Published> fed;
  for (int k = 0; k < 4; ++k) fed.push_back(publish(10 + k, 1, 0, 10 * k));
  const std::string checkpoint = dir / "follow.pos";
  ASSERT_EQ(0, waitFor(start({"follow", logs, "--once", "--checkpoint", checkpoint, "--prune",
                              "--to", fed[1].name},
                             dir / "out.txt", dir / "err.txt")))
      << readText(dir / "err.txt");
  // Logs of one clock tick may stay beside the position; the later ones always do.
  const Strings left = listDirectory(logs);
  for (std::size_t k = 2; k < 4; ++k) EXPECT_THAT(left, ::testing::Contains(fed[k].name));
  EXPECT_THAT(left, ::testing::Not(::testing::Contains(fed[0].name)));
}

TEST_F(MetricsTest, RefusalsAndLevels) {
  publish(10, 1, 0, 0);
  const std::string replica = dir / "replica.fdb";
  struct stat st {};
  const struct {
    const char* args;  // L: the logs' directory, R: a replica
    int status;
    const char* err;     // a regular expression for stderr's first line
    const char* log;     // FBCDC_LOG
    const char* stream;  // JOURNAL_STREAM; "stderr": the device and inode of stderr
  } cases[] = {
      {"follow L --prune", 2,
       "^fbcdc follow: --prune needs a kept position: --checkpoint or --sink redis \\(see", "", ""},
      {"follow L --metrics 127.0.0.1:99999", 2, "^fbcdc follow: --metrics: 127", "", ""},
      {"apply --database R --metrics :0 L", 2, "^fbcdc apply: --metrics is for apply --follow", "",
       ""},
      {"apply --database R --prune L L", 2, "^fbcdc apply: --prune takes exactly one directory", "",
       ""},
      // Levels: the journal's prefix, a time and a word, or nothing; a JOURNAL_STREAM naming
      // another file is not stderr's.
      {"follow L --prune", 2, "^<3>fbcdc follow: --prune needs", "journal", ""},
      {"follow L --prune", 2, "^<3>fbcdc follow: --prune needs", "", "stderr"},
      {"follow L --prune", 2, "^fbcdc follow: --prune needs", "", "1:1"},
      {"follow L --prune", 2,
       "^20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3}Z error fbcdc "
       "follow: --prune needs",
       "time", ""},
      {"follow L --once --metrics 0", 0, "^<6>fbcdc follow: metrics of follow:", "journal", ""},
      {"follow L --once --metrics 0", 0, "^fbcdc follow: metrics of follow:", "plain", ""},
  };
  ::unsetenv("FBCDC_LOG");
  ::unsetenv("JOURNAL_STREAM");
  for (const auto& c : cases) {
    const std::string err = dir / "err.txt";
    writeFile(err, "");
    ::stat(err.c_str(), &st);
    const std::string stream = std::string(c.stream) == "stderr"
                                   ? std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino)
                                   : c.stream;
    if (*c.log) ::setenv("FBCDC_LOG", c.log, 1);
    if (!stream.empty()) ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
    std::vector<std::string> args;
    std::istringstream in(c.args);
    for (std::string word; in >> word;)
      args.push_back(word == "L" ? logs : word == "R" ? replica : word);
    EXPECT_EQ(c.status, waitFor(start(args, dir / "out.txt", err))) << c.args;
    ::unsetenv("FBCDC_LOG");
    ::unsetenv("JOURNAL_STREAM");
    const std::string text = readText(err);
    EXPECT_TRUE(std::regex_search(text.substr(0, text.find('\n')), std::regex(c.err)))
        << c.err << "\n"
        << text;
  }
}

}  // namespace
