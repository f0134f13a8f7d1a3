// Snapshots of real embedded databases: every stored type and character set read back through the
// decoder and applied into a replica that then equals the source; chunks in key order; the boundary
// against writers in other attachments; a snapshot killed and run again; the manifest's, the names'
// and the statements' readings, damage refused; a snapshot followed with its logs, to stdout and
// Redis; a replica filled from a snapshot taken under load through a real Firebird server.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <hiredis/hiredis.h>
#include <rapidjson/document.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "Database.h"
#include "EventDescription.h"
#include "FbcdcRuns.h"
#include "FirebirdServer.h"
#include "LogDecoder.h"
#include "LogDirectory.h"
#include "Message.h"
#include "Processes.h"
#include "RedisServer.h"
#include "ReplicaRuns.h"
#include "SnapshotApplier.h"
#include "SnapshotManifest.h"
#include "SnapshotName.h"
#include "SnapshotStream.h"
#include "SnapshotWriter.h"
#include "Workload.h"

namespace {

// Beside the workload's tables (ITEMS has a column of every type and character set the plugin
// records, NOTES no primary key): a key of two columns in the other order than theirs, a computed
// column, a blob of more than one segment, and a table without rows.
void addTables(Database& db) {
  db.executeAlone(
      "CREATE TABLE PAIRS (A INTEGER NOT NULL, B VARCHAR(10) CHARACTER SET UTF8 NOT NULL, "
      "X INTEGER, CALC COMPUTED BY (X * 2), T BLOB SUB_TYPE TEXT, PRIMARY KEY (B, A))");
  db.executeAlone("CREATE TABLE NOTHING (ID INTEGER NOT NULL PRIMARY KEY)");
}

// A source made by a captured workload, and PAIRS filled.
void makeSource(const TempDir& dir, std::uint64_t seed, std::uint64_t transactions) {
  captureRun(dir, FBCDC_PLUGIN_PATH, seed, 1, transactions, 200000);
  Database db(dir / "source.fdb", false);
  addTables(db);
  db.executeAlone(
      "EXECUTE BLOCK AS DECLARE I INTEGER = 0; BEGIN WHILE (I < 23) DO BEGIN INSERT INTO PAIRS "
      "VALUES (MOD(:I, 4), MOD(:I, 10) || 'k' || :I, :I, LPAD(CAST('' AS BLOB SUB_TYPE TEXT), "
      "70000 + :I, 'q')); I = I + 1; END END");
}

// Every event of the files, one line each, and the rows per file.
std::vector<std::string> decodeAll(const std::vector<std::string>& files,
                                   std::vector<std::size_t>* perFile = nullptr) {
  std::vector<std::string> events;
  for (const std::string& f : files) {
    LogDecoder decoder;
    decoder.open(f);
    std::size_t n = 0;
    for (;;) {
      const ChangeEvent& e = decoder.next();
      if (e.kind == ChangeEvent::Kind::kEnd) break;
      EXPECT_EQ(ChangeEvent::Kind::kInsert, e.kind) << f;
      events.push_back(describe(e));
      ++n;
    }
    if (perFile) perFile->push_back(n);
  }
  return events;
}

SnapshotSummary snapshot(const std::string& database, const std::string& output,
                         std::uint64_t chunkRows, int unpausedAttempts = 20) {
  Database db(database, false);
  SnapshotOptions o;
  o.output = output;
  o.chunkRows = chunkRows;
  o.unpausedAttempts = unpausedAttempts;
  return SnapshotWriter(db, o).run();
}

// Every type and character set the plugin records, chunked at several sizes, read back by the
// decoder in key order and applied into a replica equal to the source.
TEST(SnapshotTest, EveryTypeChunkedInKeyOrderAndAppliedEqual) {
  TempDir dir;
  makeSource(dir, 7, 60);
  for (const std::uint64_t chunkRows : {1, 5, 23, 1000}) {
    SCOPED_TRACE("chunk rows " + std::to_string(chunkRows));
    const std::string out = dir / ("snap" + std::to_string(chunkRows));
    const SnapshotSummary s = snapshot(dir / "source.fdb", out, chunkRows);
    const auto manifest = SnapshotManifest::load(out);
    ASSERT_TRUE(manifest && manifest->complete);
    // Files: the manifest and the chunks, nothing else; each chunk of at most chunkRows rows, and
    // each table of as many chunks as its rows need.
    const std::vector<std::string> files = manifest->chunkFiles(out);
    EXPECT_EQ(files.size() + 1, listDirectory(out).size());
    std::vector<std::size_t> perFile;
    const std::vector<std::string> events = decodeAll(files, &perFile);
    EXPECT_EQ(events.size(), s.rows);
    for (std::size_t n : perFile) EXPECT_LE(n, chunkRows);
    std::map<std::string, std::uint64_t> rows;
    for (const std::string& e : events) ++rows[e.substr(2, e.find('|', 2) - 2)];
    std::string tables;
    for (const auto& t : manifest->tables) {
      tables += t.name + " ";
      EXPECT_EQ((rows[t.name] + chunkRows - 1) / chunkRows, t.chunks) << t.name;
      EXPECT_EQ(s.boundary.transaction(), t.boundary);
    }
    EXPECT_EQ("COUNTERS ITEMS LINES NOTES NOTHING PAIRS ", tables);
    EXPECT_EQ(6u, s.tablesRead);
    // Key order across the chunks: ITEMS by ID, PAIRS by (B, A) ("0k0", then "0k10"); the computed
    // column is left out.
    std::vector<std::string> pairs;
    std::int64_t lastId = -1;
    for (const std::string& e : events) {
      if (e.rfind("I|PAIRS|", 0) == 0) pairs.push_back(e);
      if (e.rfind("I|ITEMS|ID:absent>int64 scale 0 ", 0) == 0) {
        EXPECT_LT(lastId, std::stoll(e.substr(32))) << e;
        lastId = std::stoll(e.substr(32));
      }
      EXPECT_EQ(std::string::npos, e.find("CALC")) << e;
    }
    EXPECT_GT(lastId, 0);
    ASSERT_EQ(23u, pairs.size());
    EXPECT_THAT(pairs[0], ::testing::HasSubstr("|B:absent>text3 cs4 30 6B 30|"));
    EXPECT_THAT(pairs[1], ::testing::HasSubstr("|B:absent>text3 cs4 30 6B 31 30|"));
    // Into an empty replica with the source's schema.
    const std::string replica = dir / ("replica-" + std::to_string(chunkRows) + ".fdb");
    {
      Database db(replica, true);
      Workload::createSchema(db);
      db.executeAlone("DELETE FROM COUNTERS");  // rows the schema comes with
      addTables(db);
      ReplicaApplier applier(db, ReplicaApplier::Conflicts::kError);
      SnapshotApplier(db, applier, SnapshotStream(out)).applyRows();
    }
    EXPECT_EQ("", differenceBetween(dir / "source.fdb", replica));
  }
}

std::uint64_t transactionOf(Database& db) {
  return std::stoull(db.texts("SELECT CAST(CURRENT_TRANSACTION AS VARCHAR(20) CHARACTER SET UTF8) "
                              "FROM RDB$DATABASE")
                         .at(0)
                         .at(0));
}

// Writers in other attachments around the snapshot: one whose insert is open when the snapshot
// begins, one that started before but writes only after, one that starts after (writers that
// committed before: BoundaryAgreesWithTheRowsUnderBusyWriters). Started between two looks at the
// active transactions, the reading transaction holds nobody: the open writer is active to it, its
// row not read. Started while the writers are held, it waits for the open writer, and then holds
// its row. Either way the boundary contains exactly the transactions whose rows were read.
TEST(SnapshotTest, BoundaryContainsExactlyWhatWasRead) {
  for (const bool waits : {false, true}) {
    SCOPED_TRACE(waits ? "writers held" : "two looks");
    TempDir dir;
    const std::string path = dir / "source.fdb";
    {
      Database db(path, true);
      db.executeAlone("CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER)");
      db.executeAlone("CREATE TABLE U (ID INTEGER NOT NULL PRIMARY KEY)");
    }
    Database idle(path, false), open(path, false);
    const std::uint64_t startedBefore = transactionOf(idle);
    open.execute("INSERT INTO T VALUES (2, 2)");
    const std::uint64_t openWriter = transactionOf(open);

    auto reading = std::async(std::launch::async,
                              [&] { return snapshot(path, dir / "snap", 10, waits ? 0 : 20); });
    EXPECT_EQ(!waits, reading.wait_for(std::chrono::milliseconds(600)) == std::future_status::ready)
        << "the snapshot waited for the open writer";
    open.commit();
    const SnapshotSummary summary = reading.get();
    idle.execute("INSERT INTO T VALUES (3, 3)");
    idle.commit();
    Database later(path, false);
    later.execute("INSERT INTO T VALUES (4, 4)");
    const std::uint64_t startedAfter = transactionOf(later);
    later.commit();

    EXPECT_EQ(waits, summary.paused);
    EXPECT_GE(summary.drainSeconds, waits ? 0.5 : 0.0);
    EXPECT_GE(summary.pauseSeconds, summary.drainSeconds);
    const auto manifest = SnapshotManifest::load(dir / "snap");
    ASSERT_TRUE(manifest);
    const std::vector<std::string> rows = decodeAll(manifest->chunkFiles(dir / "snap"));
    ASSERT_EQ(waits ? 1u : 0u, rows.size());
    for (const std::string& row : rows)
      EXPECT_THAT(row, ::testing::StartsWith("I|T|ID:absent>long scale 0 2|"));
    const std::tuple<const char*, std::uint64_t, bool> cases[] = {
        {"open writer", openWriter, waits},
        {"started before, wrote after", startedBefore, false},
        {"started after", startedAfter, false},
        {"the snapshot's own", summary.boundary.transaction(), false}};
    for (const auto& [what, transaction, contained] : cases) {
      EXPECT_EQ(contained, summary.boundary.contains(transaction)) << what;
      EXPECT_EQ(contained, manifest->contains("T", transaction)) << what;
      EXPECT_FALSE(manifest->contains("V", transaction)) << what << ": a table not in it";
    }
    EXPECT_THAT(summary.boundary.active(), ::testing::Contains(startedBefore));
  }
}

// Writers that commit one row each, all the time, in other attachments, around snapshots taken
// both ways: the boundary counts a committed writer as read exactly when the rows hold its row.
// (A transaction is listed by the attachments a moment after its commit made its changes seen.)
TEST(SnapshotTest, BoundaryAgreesWithTheRowsUnderBusyWriters) {
  TempDir dir;
  const std::string path = dir / "source.fdb";
  Database(path, true).executeAlone("CREATE TABLE W (TX BIGINT NOT NULL)");
  std::atomic<bool> stop{false};
  std::atomic<std::size_t> commits{0};
  std::vector<std::uint64_t> committed[3];  // by each writer, read once it stopped
  std::vector<std::thread> writers;
  for (std::vector<std::uint64_t>& mine : committed)
    writers.emplace_back([&] {
      Database db(path, false);
      while (!stop) {
        db.execute("INSERT INTO W VALUES (CURRENT_TRANSACTION)");
        mine.push_back(transactionOf(db));
        db.commit();
        ++commits;
      }
    });
  std::vector<std::pair<SnapshotSummary, std::set<std::uint64_t>>> taken;
  for (std::size_t i = 0; i < 24; ++i) {
    // Each snapshot after the writers committed a few more.
    while (commits < 5 * (i + 1)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const std::string out = dir / ("snap" + std::to_string(i));
    taken.push_back({snapshot(path, out, 1000000, i % 3 == 2 ? 0 : 20), {}});
    for (const std::string& e : decodeAll(SnapshotManifest::load(out)->chunkFiles(out)))
      taken.back().second.insert(std::stoull(e.substr(e.rfind(' ') + 1)));
  }
  stop = true;
  for (std::thread& t : writers) t.join();
  for (const auto& [summary, rows] : taken)
    for (const std::vector<std::uint64_t>& mine : committed)
      for (const std::uint64_t t : mine)
        ASSERT_EQ(rows.count(t) == 1, summary.boundary.contains(t))
            << "transaction " << t << ", boundary " << summary.boundary.text();
}

// A snapshot killed at random points and run again ends with the same files, byte for byte, as one
// that ran through; nothing of the killed runs is left.
TEST(SnapshotTest, KilledAndRunAgainEndsWithTheSameContent) {
  TempDir dir;
  makeSource(dir, 3, 150);
  snapshot(dir / "source.fdb", dir / "straight", 4);
  std::mt19937 random(5);
  // From a few milliseconds up: the first kill lands before any run can finish, on an idle machine
  // too.
  const int killed =
      runKilled({FBCDC_CLI_PATH, "snapshot", "--database", dir / "source.fdb", "--output",
                 dir / "resumed", "--chunk-rows", "4"},
                dir / "err.txt", 4, [&](int run) { return random() % (10000 + 150000 * run); });
  EXPECT_GT(killed, 0);
  EXPECT_THAT(readText(dir / "err.txt"), ::testing::HasSubstr("snapshot: "));
  const auto straight = SnapshotManifest::load(dir / "straight");
  const auto resumed = SnapshotManifest::load(dir / "resumed");
  ASSERT_TRUE(resumed && resumed->complete);
  const auto a = straight->chunkFiles(dir / "straight");
  const auto b = resumed->chunkFiles(dir / "resumed");
  ASSERT_EQ(a.size(), b.size());
  for (std::size_t i = 0; i < a.size(); ++i) EXPECT_EQ(readFile(a[i]), readFile(b[i])) << b[i];
  EXPECT_EQ(b.size() + 1, listDirectory(dir / "resumed").size());
}

// The manifest, names and boundaries refuse what their writers cannot have written; a manifest that
// is read is written back as it was. A statement is judged by the table it changes, one that
// changes no table by every table read. What each was read as is golden/reading.txt, whose lines
// give the texts read (before the first ": ", with \n and \t for a line's end and a tab), in a
// section for each reading.
TEST(SnapshotTest, ManifestsNamesAndStatementsAsRead) {
  // A read by a first run (boundary 100), B by a second after a kill (boundary 200).
  TempDir dir;
  writeFile(dir / "manifest",
            "fbcdc-snapshot 1\ndatabase\tdb\nboundary\t100 90\t1\t1\nboundary\t200 -\t1\t1\n"
            "table\tA\t100\t0\t0\t0\ntable\tB\t200\t0\t0\t0\ncomplete\n");
  const SnapshotStream stream(dir.path());
  const auto yesNo = [](bool b) { return b ? std::string(" yes") : std::string(" no"); };
  const std::map<std::string, std::function<std::string(const std::string&)>> readings = {
      {"manifest",
       [&](const std::string& text) {
         const SnapshotManifest m = SnapshotManifest::parse(text);
         return (m.text() == text ? "written back as read;" : "written back as " + m.text()) +
                " A B holds 89, 88, 90:" + yesNo(m.contains("A B", 89)) +
                yesNo(m.contains("A B", 88)) + yesNo(m.contains("A B", 90)) +
                "; C holds 1:" + yesNo(m.contains("C", 1));
       }},
      {"name",
       [](const std::string& name) {
         SnapshotName back;
         return SnapshotName::parse(name, back)
                    ? "boundary " + std::to_string(back.boundary) + ", table " +
                          std::to_string(back.table) + ", chunk " + std::to_string(back.chunk)
                    : std::string("not a snapshot file's name");
       }},
      {"statement",
       [](const std::string& sql) {
         return "changes table '" + SnapshotStream::targetOf(sql) + "'";
       }},
      {"held", [&](const std::string& sql) {
         std::string held = "held by the snapshot in transaction";
         for (std::uint64_t t : {50, 90, 150})
           held += " " + std::to_string(t) + yesNo(stream.containsStatement(sql, t));
         return held;
       }}};
  std::string transcript, section;
  std::size_t sections = 0;
  std::istringstream golden(readText(FBCDC_TEST_SOURCE_DIR "/snapshot/golden/reading.txt"));
  for (std::string line; std::getline(golden, line);) {
    const std::string what = line.substr(0, line.find(": "));
    if (line.rfind("## ", 0) == 0) {
      section = line.substr(3);
      ++sections;
      transcript += line + "\n";
      continue;
    }
    try {
      const std::string text = replaceAll(replaceAll(what, "\\n", "\n"), "\\t", "\t");
      transcript += what + ": " + readings.at(section)(text) + "\n";
    } catch (const std::runtime_error& e) {
      transcript += what + ": error: " + e.what() + "\n";
    }
  }
  EXPECT_EQ("snapshot-000000001234abcd-0007-000042.fbs",
            (SnapshotName{0x1234abcdULL, 7, 42}.text()));
  EXPECT_EQ(readings.size(), sections) << "a section is missing";
  expectGolden("snapshot/golden/reading.txt", transcript);
}

// A snapshot taken between two captured workloads, followed with the logs by follow --snapshot:
// to stdout, every row as a read event first, then every log the snapshot does not contain and none
// that it does; to Redis, by a follower killed at random points and run again, the same events,
// each once.
TEST(SnapshotBetweenWorkloads, FollowSendsEveryRowThenExactlyTheChangesNotContained) {
  // A source with rows and logs before the snapshot and logs after it.
  TempDir dir;
  captureRun(dir, FBCDC_PLUGIN_PATH, 21, 2, 60, 64 << 10, 4);
  snapshot(dir / "source.fdb", dir / "snap", 25);
  captureRun(dir, FBCDC_PLUGIN_PATH, 22, 2, 50, 64 << 10, 4);
  const auto manifest = SnapshotManifest::load(dir / "snap");
  ASSERT_TRUE(manifest && manifest->complete);
  const FbcdcOutcome o =
      runFbcdc(dir, {"follow", dir / "logs", "--snapshot", dir / "snap", "--once"});
  ASSERT_EQ(0, o.status) << o.err;
  const std::uint64_t rows = manifest->rows();
  // Each event by "file#index", without its time of sending.
  std::size_t duplicates = 0;
  const auto keep = [&](std::map<std::string, std::string>& into, const std::string& json) {
    rapidjson::Document d;
    d.Parse(json.c_str());
    EXPECT_FALSE(d.HasParseError()) << json;
    const std::string id = std::string(d["source"]["file"].GetString()) + "#" +
                           std::to_string(d["source"]["index"].GetUint());
    duplicates += into.count(id);
    const std::size_t at = json.find("\"ts_ms\":");
    into[id] = std::string(json).erase(at, json.find(',', at) - at);
    return d;
  };
  std::set<std::uint64_t> sent;
  std::map<std::string, std::string> events;
  std::istringstream lines(o.out);
  std::size_t i = 0;
  for (std::string line; std::getline(lines, line); ++i) {
    const rapidjson::Document d = keep(events, line);
    const std::string op = d["op"].GetString();
    if (i < rows) {
      EXPECT_EQ("r", op) << i;
      EXPECT_STREQ(i + 1 == rows ? "last" : "true", d["source"]["snapshot"].GetString()) << i;
    } else {
      EXPECT_NE("r", op) << i;
      EXPECT_FALSE(d["source"].HasMember("snapshot")) << i;
      sent.insert(std::stoull(d["source"]["transaction"].GetString()));
    }
  }
  EXPECT_GE(i, rows);
  EXPECT_EQ(0u, duplicates);
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

  // The same to Redis by a follower killed at random points and run again: each event once. The
  // follower is done within a few milliseconds on an idle machine, so it is killed within 6.
  RedisServer redis(dir.path());
  ASSERT_TRUE(redis.ready()) << redis.errors();
  std::mt19937 random(3);
  const int killed = runKilled({FBCDC_CLI_PATH, "follow", dir / "logs", "--snapshot", dir / "snap",
                                "--sink", "redis", "--redis", redis.address(), "--once"},
                               dir / "err.txt", 6, [&](int) { return 300 + random() % 6000; });
  std::map<std::string, std::string> arrived;
  // Statements go to the stream "transaction".
  for (const char* table : {"ITEMS", "LINES", "NOTES", "COUNTERS", "transaction"}) {
    auto* reply =
        static_cast<redisReply*>(redisCommand(redis.context(), "XRANGE fbcdc:%s - +", table));
    ASSERT_EQ(REDIS_REPLY_ARRAY, reply->type);
    for (std::size_t i = 0; i < reply->elements; ++i) {
      const redisReply* fields = reply->element[i]->element[1];
      keep(arrived, std::string(fields->element[1]->str, fields->element[1]->len));
    }
    freeReplyObject(reply);
  }
  EXPECT_EQ(0u, duplicates);
  EXPECT_GT(killed, 0);
  EXPECT_EQ(events, arrived);
}

Strings with(Strings a, const Strings& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The whole way through a real Firebird server: a source made and filled through the server, a
// workload of several threads running (the plugin recording) while the snapshot is taken, a replica
// whose schema gbak makes from the source's metadata, filled by apply --snapshot from the snapshot
// and the logs, equal to the source. Several seeds; in some the snapshot and the applier are killed
// at random points and run again.
TEST(SnapshotServerTest, ReplicaFromASnapshotTakenUnderLoadEqualsTheSource) {
  if (::access(FirebirdServer::kBinary, X_OK) != 0 || ::access("/usr/bin/gbak", X_OK) != 0)
    GTEST_SKIP() << "needs Debian's Firebird server (" << FirebirdServer::kBinary << ") and gbak";
  // Seed, whether the snapshot is killed, whether the applier is.
  for (const auto& [seed, killSnapshot, killApplier] :
       {std::tuple<int, bool, bool>{1, false, false}, {2, true, false}, {3, true, true}}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    TempDir dir;
    FirebirdServer server(dir.path());
    ASSERT_TRUE(server.ready()) << server.why();
    ::setenv("ISC_USER", "SYSDBA", 1);
    ::setenv("ISC_PASSWORD", server.password().c_str(), 1);
    const std::string source = server.database(dir / "source.fdb");
    const std::string replica = server.database(dir / "replica.fdb");
    const Strings capture = {"capture",    "--database", source, "--output",
                             dir / "logs", "--max-blob", "32768"};
    const auto killedAtRandom = [&](int) { return 50000 + random() % 600000; };

    // A source with rows (and the logs of their transactions) made through the server.
    FbcdcOutcome o = runFbcdc(dir, with(capture, {"--seed", std::to_string(seed), "--transactions",
                                                  "120", "--threads", "2"}));
    ASSERT_EQ(0, o.status) << o.err;
    // Writers on hot rows, statements that add to counters, rows deleted and inserted again, while
    // the snapshot is taken.
    const pid_t load =
        startFbcdc(with(capture, {"--seed", std::to_string(seed) + "00", "--transactions", "500",
                                  "--threads", "4", "--hot-rows", "4"}),
                   dir / "load.out", dir / "load.err");
    ASSERT_GT(load, 0);
    ::usleep(200000 + random() % 800000);
    runKilled({FBCDC_CLI_PATH, "snapshot", "--database", source, "--output", dir / "snap",
               "--chunk-rows", "40"},
              dir / "snapshot.err", killSnapshot ? 3 : 0, killedAtRandom);
    ASSERT_EQ(0, waitFor(load)) << readText(dir / "load.err");
    const auto manifest = SnapshotManifest::load(dir / "snap");
    ASSERT_TRUE(manifest && manifest->complete) << readText(dir / "snapshot.err");
    // The last run's summary: the boundary; or, when a kill came after every table was read, that
    // it read none; or, when it came after the manifest was complete, that it was.
    EXPECT_THAT(readText(dir / "snapshot.err"),
                ::testing::AnyOf(::testing::HasSubstr("boundary: transaction"),
                                 ::testing::HasSubstr("snapshot: 0 tables read (4 kept"),
                                 ::testing::HasSubstr("is complete already")));

    // The replica's empty schema from the source's metadata, as the docs show.
    const Strings gbak = {"gbak", "-user", "SYSDBA", "-password", server.password()};
    runKilled(with(gbak, {"-b", "-m", source, dir / "schema.fbk"}), dir / "gbak.err", 0, {});
    runKilled(with(gbak, {"-c", dir / "schema.fbk", replica}), dir / "gbak.err", 0, {});

    const Strings apply = {FBCDC_CLI_PATH, "apply", "--database"};
    runKilled(with(apply, {replica, "--snapshot", dir / "snap", dir / "logs"}), dir / "apply.err",
              killApplier ? 3 : 0, killedAtRandom);
    o = runFbcdc(dir, {"compare", source, replica});
    EXPECT_EQ(0, o.status) << o.out << o.err;
    EXPECT_THAT(o.out, ::testing::StartsWith("equal:"));
    // A second run has nothing to do; without --snapshot the applier does not take the replica for
    // one it may go on with; the source holds rows, so it is no replica to fill.
    const struct {
      Strings args;
      int status;
      std::string out, err;
    } afterwards[] = {
        {{replica, "--snapshot", dir / "snap", dir / "logs"}, 0, "apply: 0 snapshot files", ""},
        {{replica, "--snapshot", dir / "snap", dir / "logs"}, 0, "apply: 0 logs", ""},
        {{replica, dir / "logs"}, 1, "", "progress of a snapshot"},
        {{source, "--snapshot", dir / "snap", dir / "logs"}, 1, "", "holds rows"},
    };
    for (const auto& a : afterwards) {
      SCOPED_TRACE(a.out + a.err);
      o = runFbcdc(dir, with({"apply", "--database"}, a.args));
      EXPECT_EQ(a.status, o.status);
      EXPECT_THAT(o.out, ::testing::HasSubstr(a.out));
      EXPECT_THAT(o.err, ::testing::HasSubstr(a.err));
    }
  }
}

}  // namespace
