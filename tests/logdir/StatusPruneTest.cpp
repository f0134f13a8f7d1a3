// Status and retention of a log directory: prune takes exactly the logs that every named consumer
// has taken (same-tick logs a position does not name, logs dated by their names near it and
// temporary logs stay), archives them without losing one, and marks what went; status reports each
// consumer's backlog and lag and serves as a monitoring check; a replica's and a Redis follower's
// positions are read where they are kept; and followers killed and started again, an applier and
// prunes for both, all at once, lose nothing.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "CheckpointFile.h"
#include "Database.h"
#include "FbcdcRuns.h"
#include "LiteralRow.h"
#include "LogDirectory.h"
#include "LogFollower.h"
#include "LogPruner.h"
#include "PluginFixture.h"
#include "PruneMark.h"
#include "RedisServer.h"
#include "ReplicaApplier.h"

namespace {

constexpr std::int64_t kSecond = 1000000000;

std::int64_t now() {
  timespec t{};
  ::clock_gettime(CLOCK_REALTIME, &t);
  return static_cast<std::int64_t>(t.tv_sec) * kSecond + t.tv_nsec;
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

// A directory of logs known by short keys: F0..F5 published now, each in a later tick of the clock
// than the one before; U0..U2 named an hour and more ago but written now, as a copy or a chmod
// leaves a log: dated by their names; T0, a temporary log begun ten minutes ago, and T1, one begun
// now. Each file holds a text of its own size.
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
      if (k[0] == 'F') awaitLaterFileTime(dir);
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
};

// A position as stored: a time and the names of that time.
FollowPosition at(std::int64_t time, const std::string& name) {
  return FollowPosition::parse(std::to_string(time) + " " + name);
}

const Strings kAll = {"U2", "U0", "U1", "F0", "F1", "F2", "F3", "F4", "F5"};

// status and prune as users run them: each case, a section of golden/status_prune.txt, runs its
// lines on a directory of its own (Layout, L/ in the lines) with positions stored as checkpoints:
// all.pos took every log, f0.pos and f1.pos the U logs and F0 (and F1), f2.pos and f4.pos F0 to F2
// (F4), tick.pos F4 within F3's tick of the clock but not F3 itself, near.pos U0 half a minute
// after U1's second (U2 lies a window before it, and U1, changed after publication, may lie on
// either side), other.pos a log this directory never had a second after F5 (another directory's),
// bad.pos is damaged and none.pos absent. After a case's lines, the files left and archived are
// listed by key, "(changed)" where their bytes differ. The transcript is golden/status_prune.txt,
// with the test's directory as $, logs by their keys, and what the clock decides (lags and ages in
// hundreds of seconds, times, free space) masked; FBCDC_UPDATE_GOLDEN=1 rewrites it, to be reviewed
// line by line before a commit.
TEST(StatusPruneTest, AsUsersRunThem) {
  std::string transcript;
  for (const auto& [what, lines] : linesOf("logdir/golden/status_prune.txt")) {
    TempDir root;
    const Layout l(root / "logs/");
    const std::pair<const char*, FollowPosition> positions[] = {
        {"all", l.after(kAll)},
        {"f0", l.after({"U2", "U0", "U1", "F0"})},
        {"f1", l.after({"U2", "U0", "U1", "F0", "F1"})},
        {"f2", l.after({"F0", "F1", "F2"})},
        {"f4", l.after({"F0", "F1", "F2", "F3", "F4"})},
        {"tick", at(l.log.at("F3").publishedAt, l.name.at("F4"))},
        {"near", at(l.log.at("U1").publishedAt + 30 * kSecond, l.name.at("U0"))},
        {"other", at(l.log.at("F5").publishedAt + kSecond, logName(1, 255))}};
    for (const auto& [name, position] : positions)
      CheckpointFile(root / (std::string(name) + ".pos")).store(position.serialize());
    writeFile(root / "bad.pos", "garbage\n");
    ::mkdir((root / "archive").c_str(), 0700);
    // /dev/shm is a memory file system where there is one: a rename there fails with EXDEV.
    char shm[] = "/dev/shm/fbcdc-test-XXXXXX";
    const bool inMemory = ::mkdtemp(shm) != nullptr;
    const std::string elsewhere = inMemory ? std::string(shm) : root / "elsewhere";
    struct stat a, b;
    if (!inMemory) ::mkdir(elsewhere.c_str(), 0700);
    if (::stat(elsewhere.c_str(), &a) != 0 || ::stat(l.dir.c_str(), &b) != 0 ||
        a.st_dev == b.st_dev)
      std::printf("note: %s is on the file system of %s\n", elsewhere.c_str(), l.dir.c_str());
    const auto masked = [&](std::string text) {
      for (const auto& [name, key] : l.key) text = replaceAll(text, name, key);
      return clockMasked(replaceAll(replaceAll(text, elsewhere, "@shm"), root.path(), "$"));
    };
    transcript +=
        "## " + what + "\n" +
        masked(transcriptOf(root, lines, {{"L/", l.dir}, {"$", root.path()}, {"@shm", elsewhere}}));
    for (const std::string& where : {l.dir, root / "archive", elsewhere}) {
      transcript += where == l.dir ? "left:" : where == elsewhere ? "in @shm:" : "in $archive:";
      for (const auto& [name, content] : files(where)) {
        const bool log = l.key.count(name) > 0;
        transcript += " " + (log ? l.key.at(name) : name) +
                      (log && content != l.content.at(l.key.at(name)) ? "(changed)" : "");
      }
      transcript += "\n";
    }
    transcript += "\n";
    if (inMemory) {
      for (const auto& f : files(elsewhere)) ::unlink((elsewhere + "/" + f.first).c_str());
      ::rmdir(elsewhere.c_str());
    }
  }
  expectGolden("logdir/golden/status_prune.txt", transcript);
}

// A replica with one table, and a plugin writing logs for it, for the consumers to take.
class ConsumerPruneTest : public PluginFixture {
 protected:
  void SetUp() override {
    PluginFixture::SetUp();
    Database replica(dir / "replica.fdb", true);
    replica.executeAlone("CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER)");
  }

  // Publishes one log of transaction number inserting rows from id on.
  void insert(std::uint64_t number, int id, int rows = 1) {
    ReplTransaction* t = begin(number);
    for (int i = id; i < id + rows; ++i) {
      LiteralRow row("T");
      row.addLong("ID", i).addLong("V", i * 10);
      EXPECT_EQ(0, t->insertRecord(status, nullptr, nullptr, &row));
    }
    ASSERT_EQ(0, t->commit(status));
    t->dispose();
    awaitLaterFileTime(logs);
  }

  // The replica's answer to sql (of one column of text), each row followed by a space.
  std::string rows(const char* sql =
                       "SELECT CAST(ID AS VARCHAR(12) CHARACTER SET UTF8) FROM T "
                       "ORDER BY ID") {
    Database replica(dir / "replica.fdb", false);
    std::string out;
    for (const auto& row : replica.texts(sql)) out += row[0] + " ";
    return out;
  }
};

// A replica's position is read from its FBCDC_APPLIED row through the embedded engine (a replica
// nothing was applied to keeps every log and is left without the table), and a Redis follower's
// from <prefix>.checkpoint in a real redis-server, under the prefix the consumer names. The
// sections of golden/consumers.txt run in turn: the first with three logs of four followed to
// Redis under the prefix erp, the next after two are applied to the replica, the last with the
// server stopped; logs by their order, P1 to P4, and the server's address as TCP.
TEST_F(ConsumerPruneTest, PruneAndStatusReadReplicaAndRedisPositions) {
  RedisServer server(dir.path());
  ASSERT_TRUE(server.ready()) << "redis-server did not start: " << server.errors();
  for (int i = 1; i <= 3; ++i) insert(static_cast<std::uint64_t>(i), i);
  const FbcdcOutcome r = runFbcdc(dir, {"follow", logs, "--once", "--sink", "redis", "--redis",
                                        server.address(), "--stream-prefix", "erp"});
  ASSERT_EQ(0, r.status) << r.err;
  insert(4, 4);
  const std::vector<LogFile> published = LogDirectory::list(logs);
  ASSERT_EQ(4u, published.size());
  const std::string at = server.address();
  std::string transcript;
  for (const auto& [what, lines] : linesOf("logdir/golden/consumers.txt")) {
    if (what == "two logs applied") {
      transcript += "tables named FBCDC_APPLIED: " +
                    rows(
                        "SELECT CAST(RDB$RELATION_NAME AS VARCHAR(63) CHARACTER SET UTF8) FROM "
                        "RDB$RELATIONS WHERE RDB$RELATION_NAME = 'FBCDC_APPLIED'") +
                    "\n";
      Database db(dir / "replica.fdb", false);
      ReplicaApplier applier(db, ReplicaApplier::Conflicts::kError);
      FollowPosition position = applier.position();
      for (int i = 0; i < 2; ++i) {
        position.advance(published[i]);
        applier.apply(published[i], position);
      }
    }
    if (what == "the server stopped") server.stop();
    transcript += "## " + what + "\n" +
                  transcriptOf(dir, lines, {{"L/", logs}, {"$/", dir.path()}, {"TCP", at}});
    transcript += "replica rows: " + rows() + "\nlogs:";
    for (const std::string& name : listDirectory(logs)) transcript += " " + name;
    transcript += "\n\n";
  }
  for (int i = 0; i < 4; ++i)
    transcript = replaceAll(transcript, published[i].name, "P" + std::to_string(i + 1));
  expectGolden("logdir/golden/consumers.txt",
               clockMasked(replaceAll(replaceAll(transcript, dir.path(), "$/"), at, "TCP")));
}

// Followers killed at random moments and started again with the same checkpoint, an applier, and
// prunes for both, while logs are published: every event of every log is emitted (some twice, never
// none), each log's events in order within a run, the replica gets every row, and no named consumer
// is ever told by the mark that it missed a log.
TEST_F(ConsumerPruneTest, FollowersKilledAnApplierAndPrunesLoseNothing) {
  const std::string checkpoint = dir / "follow.pos";
  const std::string replica = dir / "replica.fdb";
  // The embedded engine lets one process open the replica: the applier runs here, beside the
  // pruner's own attachment. Both attach before either starts (an attachment made while the other
  // applies may wait for it to end).
  Database applierDb(replica, false);
  ReplicaApplier applying(applierDb, ReplicaApplier::Conflicts::kError);
  Database prunerDb(replica, false);
  ReplicaApplier reader(prunerDb, ReplicaApplier::Conflicts::kError);
  std::atomic<bool> publishing{true};
  std::atomic<bool> applierRuns{true};
  std::atomic<int> removed{0};
  // The applier looks at the directory again and again, as apply --follow's rescans do, and applies
  // what its position has not taken.
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
  const auto consumers = [&] {
    return std::vector<LogPruner::Consumer>{
        {"follower", FollowPosition::parse(CheckpointFile(checkpoint).load())},
        {"replica", reader.position()}};
  };
  std::thread pruner([&] {
    try {
      std::mt19937 random(6);
      while (applierRuns) {
        const std::vector<LogPruner::Consumer> taken = consumers();
        removed += static_cast<int>(LogPruner(logs, {}).prune(taken, now()).pruned.size());
        const PruneMark mark(logs);
        for (const LogPruner::Consumer& c : taken)
          EXPECT_EQ("", mark.missedBy(c.position)) << c.name;
        ::usleep(random() % 10000);
      }
    } catch (const std::exception& e) {
      ADD_FAILURE() << "pruner: " << e.what();
    }
  });
  std::mt19937 random(7);
  std::map<std::uint64_t, int> counts;  // events per published log, by transaction
  std::uint64_t number = 100;
  int id = 1;
  const Strings follow = {"follow", logs, "--checkpoint", checkpoint};
  int runs = runKilledWhilePublishing(dir, follow, 8, 6, random, 30000, [&] {
    const int n = 1 + static_cast<int>(random() % 400);
    counts[number] = n;
    insert(number++, id, n);
    id += n;
  });
  publishing = false;
  applier.join();
  pruner.join();
  // A last follower takes the rest and is stopped as a user would stop it, once its position names
  // the last log published (a slow, sanitized build may need a while); it takes SIGTERM as a stop
  // once it has started.
  const pid_t pid =
      startFbcdc(follow, dir / ("run" + std::to_string(runs++) + ".out"), dir / "err.txt");
  const std::string lastLog = logName(0, number - 1).substr(16);  // its transaction's part
  ::sleep(1);
  for (int i = 0; i < 600 && readText(checkpoint).find(lastLog) == std::string::npos; ++i)
    ::usleep(100000);
  EXPECT_EQ(0, stop(pid, SIGTERM)) << readText(dir / "err.txt");
  EXPECT_GT(removed, 0) << "no prune overlapped the consumers";

  std::map<std::uint64_t, std::set<int>> seen;
  for (int i = 0; i < runs; ++i) {
    std::ifstream in(dir / ("run" + std::to_string(i) + ".out"));
    std::map<std::uint64_t, int> last;
    for (std::string line; std::getline(in, line);) {
      if (in.eof()) break;  // a line the kill cut short
      const std::size_t f = line.find("\"file\":\"");
      const std::size_t x = line.find("\"index\":");
      if (f == std::string::npos || x == std::string::npos || line.back() != '}') continue;
      LogName file;
      ASSERT_TRUE(LogName::parse(line.substr(f + 8, 37), file)) << line;
      const int index = std::stoi(line.substr(x + 8));
      // Within one run a log's events come in order, from its first.
      auto previous = last.find(file.transaction);
      EXPECT_EQ(previous == last.end() ? 0 : previous->second + 1, index) << line;
      last[file.transaction] = index;
      seen[file.transaction].insert(index);
    }
  }
  for (const auto& [transaction, n] : counts)
    EXPECT_EQ(static_cast<std::size_t>(n), seen[transaction].size()) << transaction;
  EXPECT_EQ(counts.size(), seen.size());
  std::string expected;
  for (int i = 1; i < id; ++i) expected += std::to_string(i) + " ";
  EXPECT_EQ(expected, rows());
  // Both have taken everything: everything goes.
  LogPruner(logs, {}).prune(consumers(), now());
  EXPECT_EQ(Strings{PruneMark::kFileName}, listDirectory(logs));
}

}  // namespace
