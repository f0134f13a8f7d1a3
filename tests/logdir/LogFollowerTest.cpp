// A follower over a directory: each log taken once, in publication order, and a directory it
// cannot read whole stops it rather than pass over what it did not see.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <functional>

#include "CheckpointFile.h"
#include "CrashStates.h"
#include "LogFollower.h"
#include "PluginFixture.h"
#include "TestFiles.h"

namespace {

std::string logName(std::int64_t second, std::uint64_t transaction) {
  char name[64];
  std::snprintf(name, sizeof name, "%016llx_%016llx.fbl", static_cast<long long>(second),
                static_cast<unsigned long long>(transaction));
  return name;
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
  const auto put = [](std::string name) {
    return [name](const TempDir& dir) { writeFile(dir / name, "x"); };
  };
  const auto putAll = [](Strings names) {
    return [names](const TempDir& dir) {
      for (const std::string& n : names) writeFile(dir / n, "x");
    };
  };
  const auto nothing = [](const TempDir&) {};
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
       {{putAll(copied), copied},
        {nothing, {}},
        {put(logName(old + 3600, 100)), {logName(old + 3600, 100)}},
        {nothing, {}}}},
      // A log renamed once more under a later second, as the plugin does after a late rename,
      // is the log already taken.
      {"renamed again",
       {{put(logName(old, 5)), {logName(old, 5)}},
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
        {put(logName(old + 3601, 2)), {"stopped: cannot examine "}}}},
      {"done by name",
       {{put(logName(old + 3600, 1)), {logName(old + 3600, 1)}}, {loop(old, 2), {}}}},
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
  const auto at = [](std::int64_t time, std::uint64_t transaction) {
    LogFile log;
    log.name = logName(100, transaction);
    log.publishedAt = time;
    return log;
  };
  std::deque<LogFile> queue = {at(5, 9), at(5, 2), at(3, 7), at(5, 4), at(4, 1)};
  LogFollower::order(queue);
  std::vector<std::uint64_t> transactions;
  for (const LogFile& log : queue)
    transactions.push_back(std::stoull(log.name.substr(17, 16), nullptr, 16));
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
  ReplTransaction* t = begin(7);
  ASSERT_EQ(0, t->executeSql(status, "UPDATE T SET V = 1", 1));
  ASSERT_EQ(0, t->commit(status));
  t->dispose();
  PosixFaults::setTime(0);
  EXPECT_EQ(Strings{logName(now, 7)}, listDirectory(logs));
  FollowPosition position;
  LogFile before;
  before.name = logName(now - 5, 99);
  LogName::parse(before.name, before.parsed);
  before.publishedAt = (now - 5) * 1000000000;
  position.advance(before);
  EXPECT_EQ(Strings{logName(now, 7)}, look(logs, position));
}

}  // namespace
