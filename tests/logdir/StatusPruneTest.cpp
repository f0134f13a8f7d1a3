// Status and retention of a log directory: prune takes exactly the logs that every named consumer
// has taken (same-tick logs a position does not name, logs dated by their names near it and
// temporary logs stay), archives them without losing one, and marks what went; status reports each
// consumer's backlog and lag and serves as a monitoring check; a replica's position is read from
// the real database; and pruning while a follower and an applier run loses nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "CheckpointFile.h"
#include "Database.h"
#include "LiteralRow.h"
#include "LogDirectory.h"
#include "LogFollower.h"
#include "LogPruner.h"
#include "PluginFixture.h"
#include "Processes.h"
#include "PruneMark.h"
#include "RedisServer.h"
#include "ReplicaApplier.h"

namespace {

using ::testing::HasSubstr;

constexpr std::int64_t kSecond = 1000000000;

std::int64_t now() {
  timespec t{};
  ::clock_gettime(CLOCK_REALTIME, &t);
  return static_cast<std::int64_t>(t.tv_sec) * kSecond + t.tv_nsec;
}

std::string logName(std::int64_t second, std::uint64_t transaction, const char* suffix = ".fbl") {
  char name[64];
  std::snprintf(name, sizeof name, "%016llx_%016llx%s", static_cast<long long>(second),
                static_cast<unsigned long long>(transaction), suffix);
  return name;
}

// The regular files of a directory with their contents.
std::map<std::string, std::string> files(const std::string& directory) {
  std::map<std::string, std::string> found;
  for (const std::string& name : listDirectory(directory)) {
    struct stat st;
    const std::string path = LogDirectory::withSlash(directory) + name;
    if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) found[name] = readText(path);
  }
  return found;
}

// A directory of logs known by short keys: F0..F5 published now, each in a later tick of the
// clock than the one before; U0..U2 named an hour and more ago but written now, as a copy or a
// chmod leaves a log: dated by their names; T0, a temporary log begun ten minutes ago, and T1, one
// begun now. Each file holds a text of its own size.
struct Layout {
  std::string dir;
  std::map<std::string, LogFile> log;  // the published ones, as listed
  std::map<std::string, std::string> name, content, key;

  explicit Layout(const std::string& directory) : dir(directory) {
    ::mkdir(dir.c_str(), 0700);
    const std::int64_t second = std::time(nullptr);
    name = {{"U2", logName(second - 3700, 102)},
            {"U0", logName(second - 3640, 100)},
            {"U1", logName(second - 3600, 101)},
            {"T0", logName(second - 600, 200, ".tmp")},
            {"T1", logName(second, 201, ".tmp")}};
    for (int i = 0; i < 6; ++i) name["F" + std::to_string(i)] = logName(second, i + 1);
    std::size_t size = 10;
    for (const char* k : {"U2", "U0", "U1", "T0", "T1", "F0", "F1", "F2", "F3", "F4", "F5"}) {
      content[k] = std::string(size += 7, k[1]);
      writeFile(dir + name[k], content[k]);
      key[name[k]] = k;
      if (k[0] == 'F') ::usleep(10000);  // the next one falls into a later tick of the clock
    }
    for (const LogFile& f : LogDirectory::list(dir)) log[key.at(f.name)] = f;
    // What the cases rely on.
    for (const char* k : {"F0", "F1", "F2", "F3", "F4", "F5"}) EXPECT_FALSE(log.at(k).fromName);
    for (const char* k : {"U0", "U1", "U2"}) EXPECT_TRUE(log.at(k).fromName);
    for (int i = 1; i < 6; ++i)
      EXPECT_LT(log.at("F" + std::to_string(i - 1)).publishedAt,
                log.at("F" + std::to_string(i)).publishedAt);
  }

  // A position that took the logs of keys, in that order.
  FollowPosition after(const Strings& keys) const {
    FollowPosition p;
    for (const std::string& k : keys) p.advance(log.at(k));
    return p;
  }
  std::uint64_t bytes(const Strings& keys) const {
    std::uint64_t n = 0;
    for (const std::string& k : keys) n += content.at(k).size();
    return n;
  }
};

// A position as stored: a time and the names of that time.
FollowPosition at(std::int64_t time, const std::string& name) {
  return FollowPosition::parse(std::to_string(time) + " " + name);
}

const Strings kAll = {"U2", "U0", "U1", "F0", "F1", "F2", "F3", "F4", "F5"};

TEST(LogPrunerTest, TakesExactlyWhatEveryConsumerHasTaken) {
  enum Archive { kNone, kSameFileSystem, kOtherFileSystem };
  using Consumers = std::vector<LogPruner::Consumer>;
  const auto atF2AndF4 = [](const Layout& l) {
    return Consumers{{"a", l.after({"F0", "F1", "F2"})},
                     {"b", l.after({"F0", "F1", "F2", "F3", "F4"})}};
  };
  const auto allAndNothing = [](const Layout& l) {
    return Consumers{{"a", l.after(kAll)}, {"b", FollowPosition()}};
  };
  // Took F4 within F3's tick of the clock but not yet F3 itself.
  const auto inF3sTick = [](const Layout& l) {
    return Consumers{{"a", at(l.log.at("F3").publishedAt, l.name.at("F4"))}};
  };
  // Half a minute after U1's second: U0 is named by the position, U2 lies a window before it,
  // and U1, changed after publication, may lie on either side.
  const auto nearNames = [](const Layout& l) {
    return Consumers{{"a", at(l.log.at("U1").publishedAt + 30 * kSecond, l.name.at("U0"))}};
  };
  const auto all = [](const Layout& l) { return Consumers{{"a", l.after(kAll)}}; };
  // A position a second past F5 naming a log this directory never had: another directory's.
  const auto otherDirectory = [](const Layout& l) {
    return Consumers{{"b", l.after({"F0"})},
                     {"a", at(l.log.at("F5").publishedAt + kSecond, logName(1, 255))}};
  };
  // The outcome: what went (in publication order), the logs each consumer still needs, the
  // unknown and the young kept, and the pruned log that the mark says a consumer at F0 missed
  // (or the refusal).
  const struct {
    const char* what;
    std::function<Consumers(const Layout&)> consumers;
    std::int64_t keepFor;  // seconds
    bool dryRun;
    Archive archive;
    std::string outcome;
  } cases[] = {
      {"consumers at F2 and F4", atF2AndF4, 0, false, kNone, "U2 U0 U1 F0 F1 F2 | 3 1 | 0 0 | F2"},
      {"one has taken nothing", allAndNothing, 0, false, kNone, " | 0 9 | 0 0 | -"},
      {"a log of the tick not named", inF3sTick, 0, false, kNone,
       "U2 U0 U1 F0 F1 F2 F4 | 2 | 0 0 | F4"},
      {"logs dated by their names near it", nearNames, 0, false, kNone, "U2 U0 | 7 | 1 0 | -"},
      {"--keep-for half an hour", all, 1800, false, kNone, "U2 U0 U1 | 0 | 0 6 | -"},
      {"--dry-run", atF2AndF4, 0, true, kNone, "U2 U0 U1 F0 F1 F2 | 3 1 | 0 0 | -"},
      {"archived", atF2AndF4, 0, false, kSameFileSystem, "U2 U0 U1 F0 F1 F2 | 3 1 | 0 0 | F2"},
      {"archived on another file system", atF2AndF4, 0, false, kOtherFileSystem,
       "U2 U0 U1 F0 F1 F2 | 3 1 | 0 0 | F2"},
      {"another directory's consumer", otherDirectory, 0, false, kNone,
       "a: its position names 0000000000000001_00000000000000ff.fbl, a log that"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir root;
    const Layout l(root / "logs/");
    LogPruner::Options options;
    options.keepFor = c.keepFor * kSecond;
    options.dryRun = c.dryRun;
    std::string elsewhere;
    if (c.archive == kSameFileSystem) {
      options.archive = root / "archive";
      ::mkdir(options.archive.c_str(), 0700);
    } else if (c.archive == kOtherFileSystem) {
      // /dev/shm is a memory file system where there is one: a rename there fails with EXDEV.
      char pattern[] = "/dev/shm/fbcdc-test-XXXXXX";
      struct stat a, b;
      if (!::mkdtemp(pattern)) {
        std::printf("skipped \"%s\": no /dev/shm to archive into\n", c.what);
        continue;
      }
      elsewhere = options.archive = pattern;
      if (::stat(pattern, &a) != 0 || ::stat(l.dir.c_str(), &b) != 0 || a.st_dev == b.st_dev) {
        std::printf("skipped \"%s\": /dev/shm is on the file system of %s\n", c.what,
                    l.dir.c_str());
        ::rmdir(pattern);
        continue;
      }
    }
    const Consumers consumers = c.consumers(l);
    const std::map<std::string, std::string> before = files(l.dir);
    LogPruner::Outcome o;
    try {
      o = LogPruner(l.dir, options).prune(consumers, now());
    } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), HasSubstr(c.outcome));
      EXPECT_EQ(before, files(l.dir));
      continue;
    }
    Strings pruned;
    std::string outcome;
    for (const LogFile& f : o.pruned) pruned.push_back(l.key.at(f.name));
    for (const std::string& k : pruned) outcome += (outcome.empty() ? "" : " ") + k;
    outcome += " |";
    for (const std::uint64_t n : o.needed) outcome += " " + std::to_string(n);
    outcome += " | " + std::to_string(o.unknown) + " " + std::to_string(o.young) + " | ";
    EXPECT_EQ(kAll.size() - pruned.size(), o.kept);
    EXPECT_EQ(l.bytes(pruned), o.bytes);

    // What stays: everything but what went, temporary logs as they were, and a mark once logs
    // went; the archive holds what went, byte for byte, and nothing half-copied.
    std::map<std::string, std::string> stays = before, archived;
    for (const std::string& k : c.dryRun ? Strings() : pruned) {
      stays.erase(l.name.at(k));
      archived[l.name.at(k)] = l.content.at(k);
    }
    std::map<std::string, std::string> left = files(l.dir);
    const bool marked = left.erase(PruneMark::kFileName) == 1;
    EXPECT_EQ(stays, left);
    EXPECT_EQ(!c.dryRun && !pruned.empty(), marked);
    if (!options.archive.empty()) {
      EXPECT_EQ(archived, files(options.archive));
    }
    // The mark covers every log that went; no consumer that was named missed any, one that was
    // not and took only F0 missed the last ones, and one that has taken nothing (it starts now)
    // missed nothing.
    const PruneMark mark(l.dir);
    const FollowPosition behind = l.after({"F0"});
    const std::string missed = mark.missedBy(behind);
    outcome += missed.empty() ? "-" : l.key.at(missed);
    EXPECT_EQ(c.outcome, outcome);
    for (const LogFile& f : o.pruned) EXPECT_EQ(marked, mark.covers(f)) << f.name;
    for (const LogPruner::Consumer& consumer : consumers)
      EXPECT_EQ("", mark.missedBy(consumer.position)) << consumer.name;
    EXPECT_EQ("", mark.missedBy(FollowPosition()));
    try {
      PruneMark::check(l.dir, behind);
      EXPECT_EQ("", missed) << "a consumer that missed pruned logs was let go on";
    } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), HasSubstr("(" + missed + " among them)"));
    }
    // Again: nothing more goes, and positions whose last logs went are known by the mark.
    if (!c.dryRun) {
      EXPECT_EQ(0u, LogPruner(l.dir, options).prune(consumers, now()).pruned.size());
    }
    if (!elsewhere.empty()) {
      for (const auto& f : files(elsewhere)) ::unlink((elsewhere + "/" + f.first).c_str());
      ::rmdir(elsewhere.c_str());
    }
  }
}

// Starts fbcdc with args, its output going to files of the test.
pid_t start(const std::vector<std::string>& args, const std::string& out, const std::string& err) {
  std::vector<std::string> all = {FBCDC_CLI_PATH};
  all.insert(all.end(), args.begin(), args.end());
  return spawn(all, out, err);
}

struct Outcome {
  int status;
  std::string out, err;
};

Outcome run(const TempDir& dir, const std::vector<std::string>& args) {
  const int status = waitFor(start(args, dir / "out.txt", dir / "err.txt"));
  return {status, readText(dir / "out.txt"), readText(dir / "err.txt")};
}

// What each consumer of a status listing has not taken, in its order: "<logs> <oldest>".
Strings backlogs(const std::string& listing) {
  Strings found;
  const std::regex line("not taken +([0-9]+) logs?, [0-9]+ bytes(; oldest ([^\n]+))?");
  for (std::sregex_iterator m(listing.begin(), listing.end(), line), end; m != end; ++m)
    found.push_back((*m)[1].str() + " " + ((*m)[3].matched ? (*m)[3].str() : "-"));
  return found;
}

// status and prune as users run them, one step after another on one directory: figures, lags,
// --max-lag's exit status, damaged positions, every refusal, dry and real prunes, --keep-for, and
// a consumer left out of a prune. The transcript is golden/status_prune.txt, with the test's
// directory as $, logs by their keys, and what the clock decides (lags and ages in hundreds of
// seconds, free space) masked; FBCDC_UPDATE_GOLDEN=1 rewrites it, to be reviewed before a commit.
TEST(StatusPruneCommandTest, FiguresMonitoringChecksAndRefusals) {
  TempDir root;
  const Layout l(root / "logs/");
  CheckpointFile(root / "all.pos").store(l.after(kAll).serialize());
  CheckpointFile(root / "f0.pos").store(l.after({"U2", "U0", "U1", "F0"}).serialize());
  CheckpointFile(root / "f1.pos").store(l.after({"U2", "U0", "U1", "F0", "F1"}).serialize());
  writeFile(root / "bad.pos", "garbage\n");
  const char* const steps[] = {
      "status L --checkpoint $all.pos --checkpoint $f1.pos --checkpoint $none.pos --format json",
      "status L --checkpoint $none.pos --checkpoint $all.pos --max-lag 3600",
      "status L --checkpoint $none.pos --max-lag 4000 --format json",
      "status L --checkpoint $bad.pos --checkpoint $all.pos --format json",
      "status L --redis 127.0.0.1:1 --stream-prefix a --stream-prefix b",
      "status $none",
      "prune L",
      "prune L --consumer file:x",
      "prune L --consumer redis:localhost/erp",
      "prune L --consumer checkpoint:$all.pos --keep-for 7x",
      "prune L --consumer checkpoint:$all.pos --archive $logs",
      "prune L --consumer checkpoint:$all.pos --archive $none",
      "prune L --consumer checkpoint:$all.pos --consumer checkpoint:$bad.pos",
      "prune L --consumer checkpoint:$f1.pos --dry-run",
      "prune L --consumer checkpoint:$f1.pos --consumer checkpoint:$none.pos",
      "prune L --consumer checkpoint:$f1.pos --keep-for 1h",  // U1 is just older than the hour
      "prune L --consumer checkpoint:$f1.pos",
      "status L --checkpoint $f0.pos --checkpoint $f1.pos",  // f0 had not taken F1 when it went
      "status L --consumer checkpoint:$f1.pos --format json",
  };
  const auto replaced = [](std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
      text.replace(at, from.size(), to);
    return text;
  };
  const auto masked = [&](std::string text) {
    for (const auto& [name, key] : l.key) text = replaced(text, name, key);
    text = replaced(text, root.path(), "$");
    // Lags and ages to the hundred seconds; times, positions' times and free space not at all.
    text = std::regex_replace(text,
                              std::regex("(lag_seconds\":|\n  lag +|lags |begun |age_seconds\":)"
                                         "([0-9]*?)[0-9]{1,2}(?![0-9])(\\.[0-9]+)?"),
                              "$1$2xx");
    return std::regex_replace(
        text,
        std::regex("(free space +)[^\n]*|(free_bytes\":|total_bytes\":|idle_seconds\":|written )"
                   "[0-9]+|[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z|[0-9]{19}(?= [FU])"),
        "$1$2#");
  };
  std::string transcript;
  for (const std::string step : steps) {
    std::vector<std::string> args;
    std::istringstream words(replaced(step, "$", root.path()));
    for (std::string w; words >> w;) args.push_back(w == "L" ? l.dir : w);
    const Outcome r = run(root, args);
    transcript += masked("$ fbcdc " + step + "\n" + r.out + "stderr: " + r.err + "exit " +
                         std::to_string(r.status) + "\n\n");
  }
  const std::string golden = std::string(FBCDC_TEST_SOURCE_DIR) + "/logdir/golden/status_prune.txt";
  EXPECT_EQ(readText(golden), transcript);
  if (std::getenv("FBCDC_UPDATE_GOLDEN")) writeFile(golden, transcript);
}

// A replica with one table, and a plugin writing logs for it, for the consumers to take.
class ConsumerPruneTest : public PluginFixture {
 protected:
  void SetUp() override {
    PluginFixture::SetUp();
    Database replica(dir / "replica.fdb", true);
    replica.executeAlone("CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER)");
  }

  // Publishes one log of transaction number inserting row id.
  void insert(std::uint64_t number, int id) {
    LiteralRow row("T");
    row.addLong("ID", id);
    row.addLong("V", id * 10);
    ReplTransaction* t = begin(number);
    t->insertRecord(status, nullptr, nullptr, &row);
    ASSERT_EQ(0, t->commit(status));
    t->dispose();
    ::usleep(10000);  // the next log falls into a later tick of the file system's clock
  }

  std::string rows() {
    Database replica(dir / "replica.fdb", false);
    std::string out;
    for (const auto& row : replica.texts("SELECT CAST(ID AS VARCHAR(12) CHARACTER SET UTF8) "
                                         "FROM T ORDER BY ID"))
      out += row[0] + " ";
    return out;
  }

  bool hasPositionTable() {
    Database replica(dir / "replica.fdb", false);
    return !replica
                .texts(
                    "SELECT CAST(RDB$RELATION_NAME AS VARCHAR(63) CHARACTER SET UTF8) FROM "
                    "RDB$RELATIONS WHERE RDB$RELATION_NAME = 'FBCDC_APPLIED'")
                .empty();
  }
};

// A replica's position is read from its FBCDC_APPLIED row through the embedded engine (a replica
// nothing was applied to keeps every log and is left without the table), and a Redis follower's
// from <prefix>.checkpoint in a real redis-server, under the prefix the consumer names.
TEST_F(ConsumerPruneTest, PruneAndStatusReadReplicaAndRedisPositions) {
  RedisServer server(dir.path());
  ASSERT_TRUE(server.ready()) << "redis-server did not start: " << server.errors();
  const std::string at = server.address(), redis = "redis:" + at + "/erp";
  const std::string replica = dir / "replica.fdb", consumer = "replica:" + replica;
  for (int i = 1; i <= 3; ++i) insert(static_cast<std::uint64_t>(i), i);
  Outcome r = run(
      dir, {"follow", logs, "--once", "--sink", "redis", "--redis", at, "--stream-prefix", "erp"});
  ASSERT_EQ(0, r.status) << r.err;
  insert(4, 4);
  const std::vector<LogFile> published = LogDirectory::list(logs);
  ASSERT_EQ(4u, published.size());

  r = run(dir, {"status", logs, "--replica", replica, "--redis", at, "--stream-prefix", "erp",
                "--consumer", "redis:" + at});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ((Strings{"4 " + published[0].name, "1 " + published[3].name, "4 " + published[0].name}),
            backlogs(r.out))
      << "the last under the prefix fbcdc";
  r = run(dir, {"prune", logs, "--consumer", consumer});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ("fbcdc prune: " + consumer + " has taken nothing: every log stays\n", r.err);
  EXPECT_FALSE(hasPositionTable()) << "reading a replica's position made its table";
  {
    Database db(replica, false);
    ReplicaApplier applier(db, ReplicaApplier::Conflicts::kError);
    FollowPosition position = applier.position();
    for (int i = 0; i < 2; ++i) {
      position.advance(published[i]);
      applier.apply(published[i], position);
    }
  }
  r = run(dir, {"prune", logs, "--consumer", consumer, "--consumer", redis});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_THAT(r.out, HasSubstr("prune: 2 logs removed"));
  EXPECT_EQ((Strings{published[2].name, published[3].name, PruneMark::kFileName}),
            listDirectory(logs));
  r = run(dir, {"status", logs, "--consumer", consumer, "--consumer", redis});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_EQ((Strings{"2 " + published[2].name, "1 " + published[3].name}), backlogs(r.out));
  EXPECT_EQ("1 2 ", rows());
  server.stop();  // a server that cannot be reached
  r = run(dir, {"prune", logs, "--consumer", redis});
  EXPECT_EQ(1, r.status);
  EXPECT_THAT(r.err, HasSubstr("fbcdc prune: " + redis + ": cannot connect to Redis at " + at));
}

// The events of a follower's output, by log: the indexes seen.
std::map<std::string, std::set<int>> eventsOf(const std::string& path) {
  std::map<std::string, std::set<int>> seen;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    const std::size_t f = line.find("\"file\":\"");
    const std::size_t x = line.find("\"index\":");
    if (f == std::string::npos || x == std::string::npos) continue;
    seen[line.substr(f + 8, 37)].insert(std::stoi(line.substr(x + 8)));
  }
  return seen;
}

// Waits until a follower's output holds events of logs logs; false after half a minute.
bool caughtUp(const std::string& output, std::size_t logs) {
  for (int i = 0; i < 3000; ++i) {
    if (eventsOf(output).size() >= logs) return true;
    ::usleep(10000);
  }
  return false;
}

// Pruning for a follower and an applier at once while logs are published: the replica gets every
// row, the follower every log, and no named consumer is ever told by the mark that it missed one.
TEST_F(ConsumerPruneTest, PruneRacingAFollowerAndAnApplierLosesNothing) {
  const std::string checkpoint = dir / "follow.pos";
  const std::string replica = dir / "replica.fdb";
  // The embedded engine lets one process open the replica: the applier runs here, beside the
  // pruner's own attachment. Both attach before either starts (an attachment made while the
  // other applies may wait for it to end).
  Database applierDb(replica, false);
  ReplicaApplier applying(applierDb, ReplicaApplier::Conflicts::kError);
  Database prunerDb(replica, false);
  ReplicaApplier reader(prunerDb, ReplicaApplier::Conflicts::kError);
  const pid_t follower =
      start({"follow", logs, "--checkpoint", checkpoint}, dir / "follow.jsonl", dir / "follow.err");
  std::atomic<bool> publishing{true};
  std::atomic<bool> applierRuns{true};
  std::atomic<int> removed{0};
  // The applier looks at the directory again and again, as apply --follow's rescans do, and
  // applies what its position has not taken.
  std::thread applier([&] {
    try {
      FollowPosition position = applying.position();
      LogFollower follower(logs, LogRange());
      for (bool last = false; !last;) {
        last = !publishing;
        follower.run(
            position,
            [&](const LogFile& log) {
              FollowPosition next = position;
              next.advance(log);
              applying.apply(log, next);
            },
            [](const FollowPosition&) {}, true);
        ::usleep(3000);
      }
    } catch (const std::exception& e) {
      ADD_FAILURE() << "applier: " << e.what();
    }
    applierRuns = false;
  });
  std::thread pruner([&] {
    try {
      std::mt19937 random(6);
      while (applierRuns) {
        const std::vector<LogPruner::Consumer> consumers = {
            {"follower", FollowPosition::parse(CheckpointFile(checkpoint).load())},
            {"replica", reader.position()}};
        const LogPruner::Outcome o = LogPruner(logs, {}).prune(consumers, now());
        removed += static_cast<int>(o.pruned.size());
        const PruneMark mark(logs);
        for (const LogPruner::Consumer& c : consumers)
          EXPECT_EQ("", mark.missedBy(c.position)) << c.name;
        ::usleep(random() % 10000);
      }
    } catch (const std::exception& e) {
      ADD_FAILURE() << "pruner: " << e.what();
    }
  });
  std::mt19937 random(8);
  for (int i = 1; i <= 60; ++i) {
    insert(static_cast<std::uint64_t>(i), i);
    // The rest comes once the follower runs, so that pruning overlaps it.
    if (i == 1) {
      EXPECT_TRUE(caughtUp(dir / "follow.jsonl", 1)) << readText(dir / "follow.err");
    }
    ::usleep(random() % 15000);
  }
  publishing = false;
  applier.join();
  pruner.join();
  EXPECT_TRUE(caughtUp(dir / "follow.jsonl", 60)) << readText(dir / "follow.err");
  EXPECT_EQ(0, stop(follower, SIGTERM)) << readText(dir / "follow.err");
  EXPECT_GT(removed, 0) << "no prune overlapped the consumers";

  std::string expected;
  for (int i = 1; i <= 60; ++i) expected += std::to_string(i) + " ";
  EXPECT_EQ(expected, rows());
  EXPECT_EQ(60u, eventsOf(dir / "follow.jsonl").size());
  // Both have taken everything: everything goes.
  LogPruner(logs, {}).prune({{"follower", FollowPosition::parse(CheckpointFile(checkpoint).load())},
                             {"replica", reader.position()}},
                            now());
  EXPECT_EQ(Strings{PruneMark::kFileName}, listDirectory(logs));
}

}  // namespace
