// The fbcdc command as users run it: exit statuses and one-line errors, verify telling damaged
// logs from good ones with their positions, and follow killed and restarted while logs are
// published, losing nothing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "FollowPosition.h"
#include "IReplPlugin.h"
#include "IReplTransaction.h"
#include "LogDecoder.h"
#include "PosixFaults.h"
#include "TestFiles.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);
extern char** environ;

namespace {

struct Outcome {
  int status = -1;
  std::string out, err;
};

// Starts fbcdc with args, its output going to files of the test; returns the child's pid.
pid_t start(const std::vector<std::string>& args, const std::string& out, const std::string& err) {
  std::vector<std::string> all = {FBCDC_CLI_PATH};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : all) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  EXPECT_EQ(0, posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ));
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

std::string text(const std::string& path) {
  const Bytes b = readFile(path);
  return std::string(b.begin(), b.end());
}

Outcome run(const TempDir& dir, const std::vector<std::string>& args) {
  const pid_t pid = start(args, dir / "out.txt", dir / "err.txt");
  Outcome r;
  int status = 0;
  waitpid(pid, &status, 0);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = text(dir / "out.txt");
  r.err = text(dir / "err.txt");
  return r;
}

class FbcdcCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    writeFile(dir / "plugin.conf", "OutputDirectory = " + dir.path() + "logs\n");
    Firebird::IConfig* config = loadConfig(dir / "plugin.conf");
    plugin = getReplPlugin(status, 30, config);
    config->release();
    ASSERT_NE(nullptr, plugin);
  }
  void TearDown() override { plugin->dispose(); }

  // Publishes a log of statements numbered 0 to count - 1, each with a text of size bytes; returns
  // its path.
  std::string publish(std::uint64_t number, int count, std::size_t size = 100) {
    Firebird::IReplTransaction* t = plugin->startTransaction(status, number);
    for (int i = 0; i < count; ++i)
      EXPECT_EQ(0, t->executeSql(status, std::string(size, 'a' + i % 26).c_str(), i));
    EXPECT_EQ(0, t->commit(status));
    t->dispose();
    for (const std::string& name : listDirectory(dir / "logs")) {
      LogName parsed;
      if (LogName::parse(name, parsed) && parsed.published && parsed.transaction == number)
        return dir / ("logs/" + name);
    }
    ADD_FAILURE() << "log " << number << " not published";
    return "";
  }

  TempDir dir;
  FbStatus status;
  Firebird::IReplPlugin* plugin = nullptr;
};

TEST_F(FbcdcCommandTest, ExitStatusesAndOneLineErrors) {
  const std::string logs = dir / "logs";
  publish(1, 3);
  const struct {
    std::vector<std::string> args;
    int status;
    const char* out;  // expected in stdout
    const char* err;  // expected in stderr
  } cases[] = {
      {{}, 2, "", "usage: fbcdc COMMAND"},
      {{"--help"}, 0, "commands:", ""},
      {{"help", "dump"}, 0, "Usage: fbcdc dump", ""},
      {{"verify", "--help"}, 0, "Usage: fbcdc verify", ""},
      {{"nosuch"}, 2, "", "unknown command \"nosuch\""},
      {{"help", "nosuch"}, 2, "", "unknown command"},
      {{"dump"}, 2, "", "FILE|DIR is required"},
      {{"dump", "--format", "xml", logs}, 2, "", "xml not in {json,text}"},
      {{"dump", "--since", "yesterday", logs}, 2, "", "is not a time"},
      {{"dump", "--bogus", logs}, 2, "", "--bogus"},
      {{"dump", dir / "none"}, 1, "", "no such file"},
      {{"dump", logs}, 0, "\"op\":\"sql\"", ""},
      {{"dump", "--until", "2000-01-01", logs}, 0, "", ""},
      {{"verify", logs}, 0, "1 published logs: 1 valid", ""},
      {{"follow", dir / "none"}, 1, "", "not a directory"},
  };
  for (const auto& c : cases) {
    std::string joined;
    for (const std::string& a : c.args) joined += a + " ";
    SCOPED_TRACE(joined);
    const Outcome r = run(dir, c.args);
    EXPECT_EQ(c.status, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find(c.out)) << r.out;
    EXPECT_NE(std::string::npos, r.err.find(c.err)) << r.err;
    if (c.status == 2 && !c.args.empty()) {
      EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << "one line: " << r.err;
    }
  }
  EXPECT_EQ("", run(dir, {"dump", "--until", "2000-01-01", logs}).out);
}

// A flipped bit is found in its block; damage under valid CRCs at its position; temporary logs
// are classified, not counted as damage.
TEST_F(FbcdcCommandTest, VerifyNamesBlockAndPosition) {
  const Bytes good = readFile(publish(1, 800, 200));
  ASSERT_GT(good.size(), 4u * 32768);
  const std::string checked = dir / "checked";
  ::mkdir(checked.c_str(), 0700);
  auto put = [&](const std::string& name, const Bytes& b) {
    writeFile(checked + "/" + name, std::string(b.begin(), b.end()));
  };
  put("0000000000000001_0000000000000001.fbl", good);
  Bytes flipped = good;
  flipped[2 * 32768 + 100] ^= 0x10;
  put("0000000000000001_0000000000000002.fbl", flipped);
  // The statement tag of the record at stream offset 70000 or so, changed and resealed.
  Bytes stream;
  for (std::size_t at = 0; at < good.size(); at += 32768)
    stream.insert(stream.end(), good.begin() + at,
                  good.begin() + at + std::min<std::size_t>(32768, good.size() - at) - 4);
  const std::size_t tag = 5 + 330 * 214;  // each record: 53 00 len text 13 00 00 number
  ASSERT_EQ('S', stream[tag]);
  stream[tag] = 'Q';
  put("0000000000000001_0000000000000003.fbl", containerOf(stream));
  put("0000000000000001_0000000000000004.tmp", good);
  put("0000000000000001_0000000000000005.tmp", Bytes(good.begin(), good.begin() + 3 * 32768));

  const Outcome r = run(dir, {"verify", checked});
  EXPECT_EQ(1, r.status);
  const std::string expected =
      checked +
      "/0000000000000001_0000000000000002.fbl: damaged: block 2, log position 65536: "
      "CRC mismatch";
  EXPECT_NE(std::string::npos, r.out.find(expected)) << r.out;
  const std::int64_t position = tag + 4 * (tag / 32764);
  EXPECT_NE(std::string::npos,
            r.out.find("0000000000000003.fbl: damaged: block " + std::to_string(position >> 15) +
                       ", log position " + std::to_string(position) + ": expected a record tag"))
      << r.out;
  EXPECT_NE(std::string::npos, r.out.find("0004.tmp: complete but never published (800 events)"));
  EXPECT_NE(std::string::npos, r.out.find("0005.tmp: incomplete: block 3, log position 98304"));
  EXPECT_NE(std::string::npos, r.out.find("3 published logs: 1 valid, 2 damaged; 2 temporary"));
  EXPECT_EQ(0, run(dir, {"verify", checked + "/0000000000000001_0000000000000001.fbl"}).status);
}

// The follower is killed at random moments while logs are published, and started again with the
// same checkpoint: every event of every log is emitted (some twice, never none), each log's events
// in order, and the checkpoint is never seen half-written.
TEST_F(FbcdcCommandTest, FollowKilledAndRestartedLosesNothing) {
  const std::string logs = dir / "logs";
  const std::string checkpoint = dir / "checkpoint";
  std::atomic<bool> done{false};
  std::atomic<int> reads{0};
  std::thread reader([&] {
    while (!done) {
      std::ifstream in(checkpoint);
      std::stringstream s;
      s << in.rdbuf();
      EXPECT_NO_THROW(FollowPosition::parse(s.str())) << s.str();
      ++reads;
    }
  });
  std::mt19937 random(7);
  std::map<std::string, int> counts;  // events per published log
  int runs = 0;
  for (int round = 0; round < 8; ++round) {
    const pid_t pid = start({"follow", logs, "--checkpoint", checkpoint},
                            dir / ("run" + std::to_string(runs++) + ".jsonl"), dir / "err.txt");
    for (int i = 0; i < 6; ++i) {
      const int n = 1 + static_cast<int>(random() % 400);
      const std::uint64_t number = 100 * (round + 1) + i;
      counts[LogName::baseName(publish(number, n))] = n;
      ::usleep(random() % 30000);
    }
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  // A last follower empties the directory and is stopped as a user would stop it.
  const pid_t pid = start({"follow", logs, "--checkpoint", checkpoint},
                          dir / ("run" + std::to_string(runs++) + ".jsonl"), dir / "err.txt");
  ::sleep(1);
  ::kill(pid, SIGTERM);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text(dir / "err.txt");
  done = true;
  reader.join();
  EXPECT_GT(reads, 10);

  std::map<std::string, std::set<int>> seen;
  for (int i = 0; i < runs; ++i) {
    std::ifstream in(dir / ("run" + std::to_string(i) + ".jsonl"));
    std::map<std::string, int> last;
    for (std::string line; std::getline(in, line);) {
      if (in.eof()) break;  // a line the kill cut short
      const std::size_t f = line.find("\"file\":\"");
      const std::size_t x = line.find("\"index\":");
      if (f == std::string::npos || x == std::string::npos || line.back() != '}') continue;
      const std::string file = line.substr(f + 8, 37);
      const int index = std::stoi(line.substr(x + 8));
      // Within one run a log's events come in order, from its first.
      auto previous = last.find(file);
      EXPECT_EQ(previous == last.end() ? 0 : previous->second + 1, index) << file;
      last[file] = index;
      seen[file].insert(index);
    }
  }
  for (const auto& [file, n] : counts)
    EXPECT_EQ(static_cast<std::size_t>(n), seen[file].size()) << file;
  EXPECT_EQ(counts.size(), seen.size());
}

}  // namespace
