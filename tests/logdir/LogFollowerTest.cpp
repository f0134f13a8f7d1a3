// A follower over a directory: each log taken once, in publication order, and a directory it
// cannot read whole stops it rather than pass over what it did not see; where a position puts a
// log: by the publication time the rename set, and, for a log whose file was changed since, by the
// second in its name, with a window where that cannot decide. The files that hold a position are
// their owner's.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <memory>

#include "CheckpointFile.h"
#include "CrashStates.h"
#include "FbcdcRuns.h"
#include "LogDirectory.h"
#include "LogFollower.h"
#include "PluginFixture.h"
#include "PruneMark.h"

namespace {

constexpr std::int64_t kSecond = 1000000000;

// A log as a listing finds it.
LogFile logAt(std::int64_t nameSecond, std::uint64_t transaction, std::int64_t publishedAt,
              bool fromName) {
  LogFile log;
  log.name = log.path = logName(nameSecond, transaction);
  LogName::parse(log.name, log.parsed);
  log.publishedAt = publishedAt;
  log.fromName = fromName;
  return log;
}

// Names taken by one look at the directory (a run with once, which scans as a rescan does), or
// "stopped: " and why.
Strings look(const std::string& dir, FollowPosition& position) {
  Strings taken;
  try {
    LogFollower follower(dir, LogRange());
    follower.run(
        position, [&](const LogFile& log) { taken.push_back(log.name); },
        [](const FollowPosition&) {}, true);
  } catch (const std::runtime_error& e) {
    taken.push_back(std::string("stopped: ") + e.what());
  }
  return taken;
}

struct Step {
  std::function<void(const TempDir&)> change;  // done to the directory before the look
  Strings taken;                               // what the look takes, in order
};

TEST(LogFollowerTest, EachLogOnceAcrossLooks) {
  // Names an hour back: their files, written now, are dated by their names.
  const std::int64_t old = std::time(nullptr) - 3600;
  const auto put = [](Strings names) {
    return [names](const TempDir& dir) {
      for (const std::string& n : names) writeFile(dir / n, "x");
    };
  };
  const auto loop = [](std::int64_t second, std::uint64_t transaction) {
    return [=](const TempDir& dir) {
      const std::string path = dir / logName(second, transaction);
      ASSERT_EQ(0, ::symlink(path.c_str(), path.c_str()));
    };
  };
  const Strings copied = {logName(old, 9), logName(old + 1, 3), logName(old + 5, 1),
                          logName(old + 5, 2)};
  const struct {
    const char* what;
    std::vector<Step> steps;
  } cases[] = {
      // A copied directory: taken in name order once, and then the follower stays quiet, also
      // after a log of now is published behind them.
      {"copied logs",
       {{put(copied), copied},
        {put({}), {}},
        {put({logName(old + 3600, 100)}), {logName(old + 3600, 100)}},
        {put({}), {}}}},
      // A log renamed once more under a later second, as the plugin does after a late rename,
      // is the log already taken.
      {"renamed again",
       {{put({logName(old, 5)}), {logName(old, 5)}},
        {[&](const TempDir& dir) {
           ASSERT_EQ(0, ::rename((dir / logName(old, 5)).c_str(),
                                 (dir / logName(old + 3600, 5)).c_str()));
         },
         {}}}},
      // A file that cannot be examined (a link to itself, named as a log) says nothing of the
      // log: the follower stops instead of taking it for gone; named a window before the
      // position, it is not looked at and stops nothing.
      {"cannot be examined",
       {{loop(old + 3600, 1), {"stopped: cannot examine "}},
        {put({logName(old + 3601, 2)}), {"stopped: cannot examine "}}}},
      {"done by name",
       {{put({logName(old + 3600, 1)}), {logName(old + 3600, 1)}}, {loop(old, 2), {}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    FollowPosition position;
    for (std::size_t i = 0; i < c.steps.size(); ++i) {
      SCOPED_TRACE("look " + std::to_string(i));
      c.steps[i].change(dir);
      Strings taken = look(dir.path(), position);
      // A stop by its reason, without the path.
      for (std::string& t : taken) t = t.substr(0, t.find(dir.path()));
      EXPECT_EQ(c.steps[i].taken, taken);
      // What is stored and loaded again decides the same.
      position = FollowPosition::parse(position.serialize());
    }
  }
}

// Logs of one time keep the order in which their renames were reported; only time moves them.
TEST(LogFollowerTest, ReportOrderStandsWithinOneTime) {
  std::deque<LogFile> queue;
  for (const auto& [time, transaction] : {std::pair{5, 9}, {5, 2}, {3, 7}, {5, 4}, {4, 1}})
    queue.push_back(logAt(100, transaction, time, false));
  LogFollower::order(queue);
  std::vector<std::uint64_t> transactions;
  for (const LogFile& log : queue) transactions.push_back(log.parsed.transaction);
  EXPECT_EQ((std::vector<std::uint64_t>{7, 1, 9, 2, 4}), transactions);
}

// A follower's checkpoint after a crash or a power loss, in every state the recorded calls of two
// stores can leave (unsynced changes dropped in any combination): absent or one of the texts
// whole, never a part of one; and once a store has returned, its text or a later one.
TEST(CheckpointFileTest, EveryCrashStateHoldsAWholePositionAndKeepsAStoredOne) {
  TempDir dir;
  const CheckpointFile checkpoint(dir / "follow.pos");
  const Strings texts = {"1 first.fbl\n", "2 second.fbl\n"};
  std::vector<std::size_t> returned;
  PosixFaults::startRecording();
  for (const std::string& text : texts) {
    checkpoint.store(text);
    returned.push_back(PosixFaults::takeRecordingSize());
  }
  const std::vector<CrashStates::Op> ops = CrashStates::resolve(PosixFaults::takeRecording());
  CrashStates::forEach(ops, false, 5, [&](std::size_t end, const CrashStates::Files& files) {
    const auto found = files.find(checkpoint.path());
    std::size_t holds = 0;  // 0: absent, k: texts[k - 1]
    if (found != files.end()) {
      const auto at = std::find(texts.begin(), texts.end(), found->second);
      ASSERT_TRUE(at != texts.end()) << "\"" << found->second << "\" after a crash at call " << end;
      holds = static_cast<std::size_t>(at - texts.begin()) + 1;
    }
    for (std::size_t k = 0; k < returned.size(); ++k) {
      if (end >= returned[k]) {
        EXPECT_GT(holds, k) << "store " << k << " lost at call " << end;
      }
    }
  });
}

// A publishing rename that returns 70 s after the name's second: the plugin renames the log once
// more under the second it returned at, so a follower already past the first second's window
// (restarted, or reading the directory afresh) takes it instead of taking it for one touched since.
using LateRename = PluginFixture;
TEST_F(LateRename, ALogRenamedLateIsRenamedAgainAndTaken) {
  const std::int64_t now = std::time(nullptr);
  PosixFaults::setTime(now - 70);
  PosixFaults::setTimeAfter(PosixFaults::kRename, now);
  recordStream(
      [&](ReplTransaction* t) { ASSERT_EQ(0, t->executeSql(status, "UPDATE T SET V = 1", 1)); });
  PosixFaults::setTime(0);
  EXPECT_EQ(Strings{logName(now, 1)}, listDirectory(logs));
  FollowPosition position;
  position.advance(logAt(now - 5, 99, (now - 5) * kSecond, false));
  EXPECT_EQ(Strings{logName(now, 1)}, look(logs, position));
}

TEST(FollowPositionTest, VerdictsAroundThePosition) {
  using V = FollowPosition::Verdict;
  FollowPosition position;
  EXPECT_EQ(V::kNotDone, position.check(logAt(100, 1, 100 * kSecond, false)));
  // The last log finished was published at 100.3 s; another one at that same instant too.
  position.advance(logAt(100, 7, 100 * kSecond + 300000000, false));
  position.advance(logAt(100, 3, 100 * kSecond + 300000000, false));
  const std::int64_t at = 100 * kSecond + 300000000;
  const std::int64_t w = LogFile::kPublishWindow / kSecond;  // seconds
  // Name second, transaction, publication time, taken from the name, verdict.
  const std::tuple<std::int64_t, std::uint64_t, std::int64_t, bool, V> cases[] = {
      {100, 5, at - 1, false, V::kDone},         // published just before
      {100, 5, at, false, V::kNotDone},          // same instant, not among the names
      {100, 3, at, false, V::kDone},             // same instant, among the names
      {100, 9, at + 1, false, V::kNotDone},      // just after
      {100, 7, 500 * kSecond, false, V::kDone},  // a name finished, its file touched since
      // Changed since publication: published somewhere in the window after the name's second.
      {100 - w - 1, 2, (100 - w - 1) * kSecond, true, V::kDone},  // by 99 s at the latest
      {100 - w, 2, (100 - w) * kSecond, true, V::kDone},          // by 100 s at the latest
      {101 - w, 2, (101 - w) * kSecond, true, V::kUnknown},       // either side of 100.3 s
      {100, 2, 100 * kSecond, true, V::kUnknown},                 // 100 s to 100 s + w
      {101, 2, 101 * kSecond, true, V::kNotDone},                 // from 101 s on
      {100, 7, 100 * kSecond, true, V::kDone},                    // among the names
  };
  for (const auto& [second, transaction, publishedAt, fromName, verdict] : cases) {
    SCOPED_TRACE(std::to_string(second) + " " + std::to_string(transaction) + " " +
                 std::to_string(publishedAt));
    EXPECT_EQ(verdict, position.check(logAt(second, transaction, publishedAt, fromName)));
  }
  // A position that was itself placed by a name counts the logs of that second by their names.
  FollowPosition named;
  named.advance(logAt(100, 9, 100 * kSecond, true));
  EXPECT_EQ(V::kNotDone, named.check(logAt(100, 10, 100 * kSecond, true)));
  EXPECT_EQ(V::kDone, named.check(logAt(100, 9, 100 * kSecond, true)));
  // At the window's edge: a log published by 100 s at the latest is done for a position of 100 s.
  FollowPosition whole;
  whole.advance(logAt(100, 1, 100 * kSecond, false));
  EXPECT_EQ(V::kDone, whole.check(logAt(100 - w, 2, (100 - w) * kSecond, true)));
  EXPECT_EQ(V::kUnknown, whole.check(logAt(101 - w, 2, (101 - w) * kSecond, true)));
}

// The status-change time is the publication time only within the window after the name's second.
TEST(FollowPositionTest, PublicationTimeOfAFile) {
  TempDir dir;
  const std::time_t now = std::time(nullptr);
  const std::int64_t w = LogFile::kPublishWindow / kSecond;
  // Names far outside any clock's range keep the status-change time.
  for (const auto& [nameSecond, fromName] : {std::pair<std::int64_t, bool>{now, false},
                                             {now - 1, false},
                                             {now - w + 5, false},
                                             {now - w - 1, true},
                                             {now + 5, true},
                                             {-1, true},
                                             {std::int64_t{1} << 62, false}}) {
    const std::string path = dir / logName(nameSecond, 1);
    writeFile(path, Bytes{1});
    LogFile log;
    ASSERT_TRUE(LogFile::examine(path, log));
    EXPECT_EQ(fromName, log.fromName) << nameSecond - now;
    EXPECT_EQ(fromName ? nameSecond * kSecond : log.changed, log.publishedAt);
    ::unlink(path.c_str());
  }
}

// The files that hold a position are their owner's: a checkpoint is 0600 and the prune mark, which
// every consumer of the directory reads, 0640, whatever the umask and whatever mode a file or a
// temporary file left behind had; fbcdc follow's checkpoint is made so too.
using FileModesTest = PluginFixture;
TEST_F(FileModesTest, PositionsAreTheirOwnersAlone) {
  const auto modeOf = [](const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 07777;
  };
  recordStream(
      [&](ReplTransaction* t) { ASSERT_EQ(0, t->executeSql(status, "UPDATE T SET V = 1", 1)); });
  const std::vector<LogFile> published = LogDirectory::list(logs);
  ASSERT_EQ(1u, published.size());
  // The umask is the test's until the end, also when an assertion ends it early.
  const std::shared_ptr<void> restore(nullptr, [mask = ::umask(0)](void*) { ::umask(mask); });
  // The umask, and the mode of a file and a temporary file already there (0: none).
  const std::pair<mode_t, mode_t> cases[] = {{0, 0}, {022, 0}, {0, 0666}, {077, 0644}};
  for (std::size_t n = 0; n < std::size(cases); ++n) {
    const auto [mask, before] = cases[n];
    SCOPED_TRACE(n);
    ::umask(mask);
    const std::string checkpoint = dir / ("checkpoint" + std::to_string(n));
    const std::string marked = dir / ("marked" + std::to_string(n)) + "/";
    ASSERT_EQ(0, ::mkdir(marked.c_str(), 0755));
    const std::string mark = marked + PruneMark::kFileName;
    for (const std::string& path : {checkpoint, checkpoint + ".tmp", mark, mark + ".tmp"}) {
      if (before == 0) break;
      writeFile(path, "");
      ASSERT_EQ(0, ::chmod(path.c_str(), before));
    }
    CheckpointFile(checkpoint).store("0 position");
    EXPECT_EQ(0600u, modeOf(checkpoint));
    EXPECT_EQ("0 position", CheckpointFile(checkpoint).load());
    PruneMark(marked).record(published);
    EXPECT_EQ(0640u, modeOf(mark));
  }
  // fbcdc follow's own checkpoint, under a umask that would leave it open to all.
  ::umask(0);
  const FbcdcOutcome r = runFbcdc(dir, {"follow", logs, "--once", "--checkpoint", dir / "f.pos"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(0600u, modeOf(dir / "f.pos"));
}

}  // namespace
