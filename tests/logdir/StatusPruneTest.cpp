// Status and retention of a log directory: prune takes exactly the logs that every named consumer
// has taken (same-tick logs a position does not name, logs dated by their names near it and
// temporary logs stay), archives them without losing one, and marks what went; status reports each
// consumer's backlog and lag and serves as a monitoring check; a replica's position is read from
// the real database; and pruning while a follower and an applier run loses nothing.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "CheckpointFile.h"
#include "Database.h"
#include "LiteralRow.h"
#include "LogDirectory.h"
#include "LogFollower.h"
#include "LogPruner.h"
#include "PluginFixture.h"
#include "Processes.h"
#include "RedisServer.h"
#include "PruneMark.h"
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
  enum class Archive { kNone, kSameFileSystem, kOtherFileSystem };
  using Consumers = std::function<std::vector<LogPruner::Consumer>(const Layout&)>;
  const Consumers atF2AndF4 = [](const Layout& l) {
    return std::vector<LogPruner::Consumer>{{"a", l.after({"F0", "F1", "F2"})},
                                            {"b", l.after({"F0", "F1", "F2", "F3", "F4"})}};
  };
  const struct {
    const char* what;
    Consumers consumers;
    std::int64_t keepFor;  // seconds
    bool dryRun;
    Archive archive;
    Strings pruned;  // in publication order
    std::vector<std::uint64_t> needed;
    std::uint64_t unknown, young;
    std::string missed;  // what a consumer that took only F0 missed, by the mark
    std::string error;
  } cases[] = {
      // The logs dated by their names an hour ago are a window before both positions.
      {"consumers at F2 and F4",
       atF2AndF4,
       0,
       false,
       Archive::kNone,
       {"U2", "U0", "U1", "F0", "F1", "F2"},
       {3, 1},
       0,
       0,
       "F2",
       ""},
      {"one consumer has taken nothing",
       [](const Layout& l) {
         return std::vector<LogPruner::Consumer>{{"a", l.after(kAll)}, {"b", FollowPosition()}};
       },
       0,
       false,
       Archive::kNone,
       {},
       {0, 9},
       0,
       0,
       "",
       ""},
      // A consumer that took F4 within F3's tick of the clock but not yet F3 itself.
      {"a log of the position's tick that it does not name",
       [](const Layout& l) {
         return std::vector<LogPruner::Consumer>{
             {"a", at(l.log.at("F3").publishedAt, l.name.at("F4"))}};
       },
       0,
       false,
       Archive::kNone,
       {"U2", "U0", "U1", "F0", "F1", "F2", "F4"},
       {2},
       0,
       0,
       "F4",
       ""},
      // Half a minute after U1's second: U0 is named by the position, U2 lies a window before
      // it, and U1, changed after publication, may lie on either side.
      {"logs dated by their names near the position",
       [](const Layout& l) {
         return std::vector<LogPruner::Consumer>{
             {"a", at(l.log.at("U1").publishedAt + 30 * kSecond, l.name.at("U0"))}};
       },
       0,
       false,
       Archive::kNone,
       {"U2", "U0"},
       {7},
       1,
       0,
       "",
       ""},
      {"--keep-for half an hour",
       [](const Layout& l) {
         return std::vector<LogPruner::Consumer>{{"a", l.after(kAll)}};
       },
       1800,
       false,
       Archive::kNone,
       {"U2", "U0", "U1"},
       {0},
       0,
       6,
       "",
       ""},
      {"--dry-run",
       atF2AndF4,
       0,
       true,
       Archive::kNone,
       {"U2", "U0", "U1", "F0", "F1", "F2"},
       {3, 1},
       0,
       0,
       "",
       ""},
      {"archived on the same file system",
       atF2AndF4,
       0,
       false,
       Archive::kSameFileSystem,
       {"U2", "U0", "U1", "F0", "F1", "F2"},
       {3, 1},
       0,
       0,
       "F2",
       ""},
      {"archived on another file system",
       atF2AndF4,
       0,
       false,
       Archive::kOtherFileSystem,
       {"U2", "U0", "U1", "F0", "F1", "F2"},
       {3, 1},
       0,
       0,
       "F2",
       ""},
      // A position a second past F5 naming a log this directory never had: another directory's.
      {"another directory's consumer",
       [](const Layout& l) {
         return std::vector<LogPruner::Consumer>{
             {"b", l.after({"F0"})},
             {"a", at(l.log.at("F5").publishedAt + kSecond, logName(1, 255))}};
       },
       0,
       false,
       Archive::kNone,
       {},
       {},
       0,
       0,
       "",
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
    if (c.archive == Archive::kSameFileSystem) {
      options.archive = root / "archive";
      ::mkdir(options.archive.c_str(), 0700);
    } else if (c.archive == Archive::kOtherFileSystem) {
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
    const std::vector<LogPruner::Consumer> consumers = c.consumers(l);
    const std::map<std::string, std::string> before = files(l.dir);
    if (!c.error.empty()) {
      try {
        LogPruner(l.dir, options).prune(consumers, now());
        ADD_FAILURE() << "pruned for a position of another directory";
      } catch (const std::runtime_error& e) {
        EXPECT_THAT(e.what(), HasSubstr(c.error));
      }
      EXPECT_EQ(before, files(l.dir));
      continue;
    }
    const LogPruner::Outcome o = LogPruner(l.dir, options).prune(consumers, now());
    Strings pruned;
    for (const LogFile& f : o.pruned) pruned.push_back(l.key.at(f.name));
    EXPECT_EQ(c.pruned, pruned);
    EXPECT_EQ(c.needed, o.needed);
    EXPECT_EQ(c.unknown, o.unknown);
    EXPECT_EQ(c.young, o.young);
    EXPECT_EQ(kAll.size() - pruned.size(), o.kept);
    EXPECT_EQ(l.bytes(pruned), o.bytes);

    // What stays: everything but what went, temporary logs as they were, and a mark once logs
    // went; the archive holds what went, byte for byte, and nothing half-copied.
    std::map<std::string, std::string> stays = before, archived;
    for (const std::string& k : c.dryRun ? Strings() : c.pruned) {
      stays.erase(l.name.at(k));
      archived[l.name.at(k)] = l.content.at(k);
    }
    std::map<std::string, std::string> left = files(l.dir);
    const bool marked = left.erase(PruneMark::kFileName) == 1;
    EXPECT_EQ(stays, left);
    EXPECT_EQ(!c.dryRun && !c.pruned.empty(), marked);
    if (!options.archive.empty()) {
      EXPECT_EQ(archived, files(options.archive));
    }
    if (marked) {
      // The mark covers every log that went; no consumer that was named missed any, one that
      // was not and took only F0 missed the last ones, and one that has taken nothing (it
      // starts now) missed nothing.
      const PruneMark mark(l.dir);
      for (const LogFile& f : o.pruned) EXPECT_TRUE(mark.covers(f)) << f.name;
      for (const LogPruner::Consumer& consumer : consumers)
        EXPECT_EQ("", mark.missedBy(consumer.position)) << consumer.name;
      const FollowPosition behind = l.after({"F0"});
      EXPECT_EQ(c.missed.empty() ? "" : l.name.at(c.missed), mark.missedBy(behind));
      EXPECT_EQ("", mark.missedBy(FollowPosition()));
      if (c.missed.empty()) {
        EXPECT_NO_THROW(PruneMark::check(l.dir, behind));
      } else {
        try {
          PruneMark::check(l.dir, behind);
          ADD_FAILURE() << "a consumer that missed pruned logs was let go on";
        } catch (const std::runtime_error& e) {
          EXPECT_THAT(e.what(), HasSubstr("(" + l.name.at(c.missed) + " among them)"));
        }
      }
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

rapidjson::Document json(const std::string& text) {
  rapidjson::Document d;
  d.Parse(text.c_str());
  EXPECT_FALSE(d.HasParseError()) << text;
  return d;
}

// What the consumers of a status report have not taken: "logs oldest lag", the lag in whole
// seconds.
Strings backlogs(const rapidjson::Document& d) {
  Strings found;
  if (!d.IsObject() || !d.HasMember("consumers")) return found;
  for (const auto& c : d["consumers"].GetArray()) {
    if (c.HasMember("error")) {
      found.push_back(std::string("error ") + c["error"].GetString());
      continue;
    }
    const auto& n = c["not_taken"];
    found.push_back(std::to_string(n["logs"].GetUint64()) + " " +
                    (n["oldest"].IsNull() ? "-" : n["oldest"].GetString()) + " " +
                    std::to_string(static_cast<long long>(c["lag_seconds"].GetDouble())));
  }
  return found;
}

// status and prune as users run them, one step after another on one directory.
TEST(StatusPruneCommandTest, FiguresMonitoringChecksAndRefusals) {
  TempDir root;
  const Layout l(root / "logs/");
  const std::string all = root / "all.pos", f0 = root / "f0.pos", f1 = root / "f1.pos",
                    none = root / "none.pos", bad = root / "bad.pos";
  CheckpointFile(all).store(l.after(kAll).serialize());
  CheckpointFile(f0).store(l.after({"U2", "U0", "U1", "F0"}).serialize());
  CheckpointFile(f1).store(l.after({"U2", "U0", "U1", "F0", "F1"}).serialize());
  writeFile(bad, "garbage\n");
  const std::string dir = l.dir;
  const auto see = [](const char* command, const std::string& text) {
    return "fbcdc " + std::string(command) + ": " + text + " (see fbcdc " + command + " --help)\n";
  };
  // A lag depends on how long the steps before took: whole seconds since F2 was published are
  // few, and since U2's second a little over 3700.
  const struct {
    std::vector<std::string> args;
    int status;
    std::string err;  // exact when it ends in a newline, else a part
    std::function<void(const Outcome&)> check;
  } steps[] = {
      {{"status", dir, "--checkpoint", all, "--checkpoint", f1, "--checkpoint", none, "--format",
        "json"},
       0,
       "",
       [&](const Outcome& r) {
         const rapidjson::Document d = json(r.out);
         ASSERT_TRUE(d.IsObject());
         EXPECT_EQ(9u, d["published"]["logs"].GetUint64());
         EXPECT_EQ(l.bytes(kAll), d["published"]["bytes"].GetUint64());
         EXPECT_EQ(l.name.at("U2"), d["published"]["oldest"].GetString());
         EXPECT_EQ(2u, d["temporary"]["logs"].GetUint64());
         ASSERT_EQ(1u, d["temporary"]["stale"].Size());
         const auto& stale = d["temporary"]["stale"][0];
         EXPECT_EQ(l.name.at("T0"), stale["name"].GetString());
         EXPECT_EQ(l.content.at("T0").size(), stale["bytes"].GetUint64());
         EXPECT_NEAR(600, stale["age_seconds"].GetInt64(), 5);
         EXPECT_GT(d["free_bytes"].GetUint64(), 0u);
         EXPECT_LE(d["free_bytes"].GetUint64(), d["total_bytes"].GetUint64());
         const Strings b = backlogs(d);
         ASSERT_EQ(3u, b.size());
         EXPECT_EQ("0 - 0", b[0]);
         EXPECT_THAT(b[1], ::testing::MatchesRegex("4 " + l.name.at("F2") + " [0-9]+"));
         EXPECT_THAT(b[2], ::testing::StartsWith("9 " + l.name.at("U2") + " 37"));
         EXPECT_TRUE(d["consumers"][2]["position"].IsNull());
         EXPECT_FALSE(d["consumers"][2]["lagging"].GetBool());
       }},
      // A monitoring check: a consumer that lags more than --max-lag fails it.
      {{"status", dir, "--checkpoint", none, "--checkpoint", all, "--max-lag", "3600"},
       1,
       "fbcdc status: checkpoint:" + none + " lags 37",
       [&](const Outcome& r) {
         EXPECT_THAT(r.err, HasSubstr(", more than --max-lag 3600\n"));
         EXPECT_THAT(r.out, HasSubstr("checkpoint:" + none +
                                      "\n  position     none: it has taken nothing\n"
                                      "  not taken    9 logs, " +
                                      std::to_string(l.bytes(kAll)) + " bytes; oldest " +
                                      l.name.at("U2") + "\n"));
         EXPECT_THAT(r.out, HasSubstr("; oldest " + l.name.at("U2") + "\n  lag          37"));
         EXPECT_THAT(r.out, HasSubstr("  temporary    2 logs, 1 begun more than a minute ago\n"
                                      "               " +
                                      l.name.at("T0") + ": begun 60"));
       }},
      {{"status", dir, "--checkpoint", none, "--max-lag", "4000", "--format", "json"},
       0,
       "",
       [&](const Outcome& r) { EXPECT_EQ(4000, json(r.out)["max_lag_seconds"].GetInt64()); }},
      {{"status", dir, "--checkpoint", bad, "--checkpoint", all, "--format", "json"},
       1,
       "fbcdc status: checkpoint:" + bad +
           ": the stored position is damaged: not a log time: \"garbage\"\n",
       [&](const Outcome& r) {
         EXPECT_EQ((Strings{"error the stored position is damaged: not a log time: \"garbage\"",
                            "0 - 0"}),
                   backlogs(json(r.out)));
       }},
      {{"status", dir, "--redis", "127.0.0.1:1", "--stream-prefix", "a", "--stream-prefix", "b"},
       2,
       see("status", "give one --stream-prefix for each --redis, or none"),
       nullptr},
      {{"status", root / "none"},
       1,
       "fbcdc status: " + (root / "none") + ": not a directory\n",
       nullptr},
      {{"prune", dir}, 2, see("prune", "--consumer missing"), nullptr},
      {{"prune", dir, "--consumer", "file:x"},
       2,
       see("prune",
           "file:x is not a consumer; give checkpoint:FILE, replica:DB or redis:HOST:PORT/PREFIX"),
       nullptr},
      {{"prune", dir, "--consumer", "redis:localhost/erp"},
       2,
       see("prune", "redis:localhost has no HOST:PORT with a port from 1 to 65535"),
       nullptr},
      {{"prune", dir, "--consumer", "checkpoint:" + all, "--keep-for", "7x"},
       2,
       see("prune",
           "--keep-for: 7x is not a duration; give a whole number and s, m, h, d or w (90s, 15m, "
           "36h, 7d, 2w)"),
       nullptr},
      {{"prune", dir, "--consumer", "checkpoint:" + all, "--archive", root / "logs"},
       2,
       see("prune", (root / "logs") + " is the directory of the logs itself"),
       nullptr},
      {{"prune", dir, "--consumer", "checkpoint:" + all, "--archive", root / "none"},
       1,
       "fbcdc prune: " + (root / "none") + ": not a directory\n",
       nullptr},
      {{"prune", dir, "--consumer", "checkpoint:" + all, "--consumer", "checkpoint:" + bad},
       1,
       "fbcdc prune: checkpoint:" + bad +
           ": the stored position is damaged: not a log time: \"garbage\"; nothing was pruned\n",
       nullptr},
      {{"prune", dir, "--consumer", "checkpoint:" + f1, "--dry-run"},
       0,
       "",
       [&](const Outcome& r) {
         std::string listed;
         for (const char* k : {"U2", "U0", "U1", "F0", "F1"})
           listed += "would be removed: " + l.name.at(k) + "\n";
         EXPECT_EQ(listed + "prune: 5 logs would be removed (" +
                       std::to_string(l.bytes({"U2", "U0", "U1", "F0", "F1"})) + " bytes), " +
                       l.name.at("U2") + " to " + l.name.at("F1") +
                       "; 4 logs kept\n  checkpoint:" + f1 + " has not taken 4 logs\n",
                   r.out);
         EXPECT_EQ(11u, files(dir).size()) << "a dry run changed the directory";
       }},
      {{"prune", dir, "--consumer", "checkpoint:" + f1, "--consumer", "checkpoint:" + none},
       0,
       "fbcdc prune: checkpoint:" + none + " has taken nothing: every log stays\n",
       [&](const Outcome& r) {
         EXPECT_THAT(r.out, HasSubstr("prune: 0 logs removed (0 bytes); 9 logs kept\n"));
       }},
      // U1, named an hour ago, is just older than the hour; F0 and F1 are younger.
      {{"prune", dir, "--consumer", "checkpoint:" + f1, "--keep-for", "1h"},
       0,
       "\n",
       [&](const Outcome& r) {
         EXPECT_THAT(r.out, HasSubstr("prune: 3 logs removed ("));
         EXPECT_THAT(r.out, HasSubstr("\n  2 logs published within --keep-for 1h\n"));
       }},
      {{"prune", dir, "--consumer", "checkpoint:" + f1},
       0,
       "\n",
       [&](const Outcome& r) {
         EXPECT_THAT(
             r.out,
             HasSubstr("prune: 2 logs removed (" + std::to_string(l.bytes({"F0", "F1"})) +
                       " bytes), " + l.name.at("F0") + " to " + l.name.at("F1") + "; 4 logs kept"));
       }},
      // A consumer left out of the prunes had not taken F1 when it went.
      {{"status", dir, "--checkpoint", f0, "--checkpoint", f1},
       1,
       "fbcdc status: checkpoint:" + f0 + " had not taken logs that were pruned (" +
           l.name.at("F1") + " among them)\n",
       [&](const Outcome& r) {
         EXPECT_THAT(r.out, HasSubstr("\n  pruned       through " + l.name.at("F1") + "\n"));
         EXPECT_THAT(r.out, HasSubstr("\n  missed       pruned logs it had not taken (" +
                                      l.name.at("F1") + " among them)\ncheckpoint:" + f1));
       }},
      {{"status", dir, "--consumer", "checkpoint:" + f1, "--format", "json"},
       0,
       "",
       [&](const Outcome& r) {
         const rapidjson::Document d = json(r.out);
         EXPECT_EQ(4u, d["published"]["logs"].GetUint64());
         EXPECT_EQ("checkpoint:" + f1, d["consumers"][0]["consumer"].GetString());
         EXPECT_EQ(l.name.at("F1"), d["pruned_through"].GetString());
         EXPECT_TRUE(d["consumers"][0]["missed_pruned"].IsNull());
         EXPECT_THAT(backlogs(d)[0], ::testing::StartsWith("4 " + l.name.at("F2") + " "));
       }},
  };
  for (const auto& s : steps) {
    std::string line;
    for (const std::string& a : s.args) line += " " + a;
    SCOPED_TRACE("fbcdc" + line);
    const Outcome r = run(root, s.args);
    EXPECT_EQ(s.status, r.status) << r.err;
    // "\n": nothing on stderr; another text ending in a newline: exactly that; else a part.
    if (s.err == "\n")
      EXPECT_EQ("", r.err);
    else if (!s.err.empty() && s.err.back() == '\n')
      EXPECT_EQ(s.err, r.err);
    else
      EXPECT_THAT(r.err, HasSubstr(s.err));
    if (s.check) s.check(r);
  }
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

// The replica's position is read from its FBCDC_APPLIED row through the embedded engine; a replica
// nothing was applied to keeps every log and is left without the table.
TEST_F(ConsumerPruneTest, PruneAndStatusReadTheReplicasPosition) {
  for (int i = 1; i <= 4; ++i) insert(static_cast<std::uint64_t>(i), i);
  const std::vector<LogFile> published = LogDirectory::list(logs);
  ASSERT_EQ(4u, published.size());
  const std::string replica = dir / "replica.fdb";
  const std::string consumer = "replica:" + replica;

  Outcome r = run(dir, {"status", logs, "--replica", replica, "--format", "json"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_THAT(backlogs(json(r.out)).at(0), ::testing::StartsWith("4 " + published[0].name));
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
  r = run(dir, {"prune", logs, "--consumer", consumer});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_THAT(r.out, HasSubstr("prune: 2 logs removed"));
  EXPECT_EQ((Strings{published[2].name, published[3].name, PruneMark::kFileName}),
            listDirectory(logs));
  r = run(dir, {"status", logs, "--consumer", consumer, "--format", "json"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_THAT(backlogs(json(r.out)).at(0), ::testing::StartsWith("2 " + published[2].name));
  EXPECT_EQ("1 2 ", rows());
}

// A follower into Redis keeps its position under <prefix>.checkpoint in a real redis-server: status
// and prune read it there, under the prefix the consumer names.
TEST_F(ConsumerPruneTest, PruneAndStatusReadARedisFollowersPosition) {
  RedisServer server(dir.path());
  ASSERT_TRUE(server.ready()) << "redis-server did not start: " << server.errors();

  const std::string at = server.address();
  for (int i = 1; i <= 3; ++i) insert(static_cast<std::uint64_t>(i), i);
  Outcome r = run(
      dir, {"follow", logs, "--once", "--sink", "redis", "--redis", at, "--stream-prefix", "erp"});
  ASSERT_EQ(0, r.status) << r.err;
  insert(4, 4);
  const std::vector<LogFile> published = LogDirectory::list(logs);
  ASSERT_EQ(4u, published.size());

  r = run(dir, {"status", logs, "--redis", at, "--stream-prefix", "erp", "--consumer",
                "redis:" + at, "--format", "json"});
  EXPECT_EQ(0, r.status) << r.err;
  const Strings b = backlogs(json(r.out));
  ASSERT_EQ(2u, b.size());
  EXPECT_THAT(b[0], ::testing::StartsWith("1 " + published[3].name + " "));
  EXPECT_THAT(b[1], ::testing::StartsWith("4 " + published[0].name + " ")) << "prefix fbcdc";
  r = run(dir, {"prune", logs, "--consumer", "redis:" + at + "/erp"});
  EXPECT_EQ(0, r.status) << r.err;
  EXPECT_THAT(r.out, HasSubstr("prune: 3 logs removed"));
  EXPECT_EQ((Strings{published[3].name, PruneMark::kFileName}), listDirectory(logs));
  server.stop();  // a server that cannot be reached
  r = run(dir, {"prune", logs, "--consumer", "redis:" + at + "/erp"});
  EXPECT_EQ(1, r.status);
  EXPECT_THAT(r.err,
              HasSubstr("fbcdc prune: redis:" + at + "/erp: cannot connect to Redis at " + at));
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

// fbcdc prune runs again and again while logs are published and a follower streams them: the
// follower emits every event of every log, and the logs it took go.
TEST_F(ConsumerPruneTest, PruneRacingAFollowerLosesNothing) {
  const std::string checkpoint = dir / "follow.pos";
  const pid_t follower =
      start({"follow", logs, "--checkpoint", checkpoint}, dir / "follow.jsonl", dir / "follow.err");
  std::atomic<bool> publishing{true};
  std::atomic<int> removed{0};
  std::thread pruner([&] {
    std::mt19937 random(5);
    while (publishing) {
      const Outcome r = run(dir, {"prune", logs, "--consumer", "checkpoint:" + checkpoint});
      EXPECT_EQ(0, r.status) << r.err;
      const std::size_t at = r.out.find("prune: ");
      if (at != std::string::npos) removed += std::stoi(r.out.substr(at + 7));
      ::usleep(random() % 20000);
    }
  });
  std::mt19937 random(9);
  for (int i = 1; i <= 60; ++i) {
    insert(static_cast<std::uint64_t>(i), i);
    // The rest comes once the follower runs, so that pruning overlaps it.
    if (i == 1) {
      EXPECT_TRUE(caughtUp(dir / "follow.jsonl", 1)) << readText(dir / "follow.err");
    }
    ::usleep(random() % 15000);
  }
  publishing = false;
  pruner.join();
  EXPECT_TRUE(caughtUp(dir / "follow.jsonl", 60)) << readText(dir / "follow.err");
  // Stopped, it has stored the position after the last log it emitted.
  EXPECT_EQ(0, stop(follower, SIGTERM)) << readText(dir / "follow.err");
  EXPECT_GT(removed, 0) << "no prune overlapped the follower";

  // Every log published is in the output, whole: those pruned and those left, which go now.
  const Outcome last = run(dir, {"prune", logs, "--consumer", "checkpoint:" + checkpoint});
  EXPECT_EQ(0, last.status) << last.err;
  EXPECT_EQ(Strings{PruneMark::kFileName}, listDirectory(logs));
  const std::map<std::string, std::set<int>> seen = eventsOf(dir / "follow.jsonl");
  EXPECT_EQ(60u, seen.size());
  std::set<std::uint64_t> transactions;
  for (const auto& [file, indexes] : seen) {
    LogName name;
    ASSERT_TRUE(LogName::parse(file, name)) << file;
    transactions.insert(name.transaction);
    EXPECT_EQ((std::set<int>{0}), indexes) << file;
  }
  EXPECT_EQ(60u, transactions.size());
  EXPECT_EQ(1u, *transactions.begin());
  EXPECT_EQ(60u, *transactions.rbegin());
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
