// Snapshots of real embedded databases: every stored type and character set read back through the
// decoder and applied into a replica that then equals the source; chunks in key order; the
// boundary against writers in other attachments; a snapshot killed and run again; the manifest's
// and the names' damage refused.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <thread>

#include "Database.h"
#include "DatabaseComparer.h"
#include "EventDescription.h"
#include "LogDecoder.h"
#include "Message.h"
#include "Processes.h"
#include "ReplicaApplier.h"
#include "SnapshotApplier.h"
#include "SnapshotName.h"
#include "SnapshotStream.h"
#include "SnapshotWriter.h"
#include "TestFiles.h"

namespace {

const char* const kSchema[] = {
    "CREATE TABLE TYPES (ID INTEGER NOT NULL PRIMARY KEY, S SMALLINT, L INTEGER, B BIGINT, "
    "N NUMERIC(18,4), N2 NUMERIC(4,2), F FLOAT, D DOUBLE PRECISION, DT DATE, TM TIME, "
    "TS TIMESTAMP, BO BOOLEAN, C CHAR(5) CHARACTER SET WIN1252, CO CHAR(4) CHARACTER SET OCTETS, "
    "V VARCHAR(20) CHARACTER SET UTF8, VN VARCHAR(10) CHARACTER SET NONE, "
    "BT BLOB SUB_TYPE TEXT CHARACTER SET UTF8, BB BLOB SUB_TYPE BINARY, AR INTEGER[3], "
    "CALC COMPUTED BY (L * 2))",
    "CREATE TABLE PAIRS (A INTEGER NOT NULL, B VARCHAR(10) CHARACTER SET UTF8 NOT NULL, "
    "X INTEGER, PRIMARY KEY (B, A))",
    "CREATE TABLE LOOSE (X INTEGER, Y VARCHAR(10))",
    "CREATE TABLE NOTHING (ID INTEGER NOT NULL PRIMARY KEY)",
};

void makeSchema(Database& db) {
  for (const char* sql : kSchema) db.executeAlone(sql);
}

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("''") : std::string(1, c);
  return out + "'";
}

// Seeded rows for every table; TYPES rows with nulls, blobs of several sizes and arrays.
void fill(Database& db, unsigned seed, int rows) {
  std::mt19937 random(seed);
  Firebird::IStatement* insert = db.prepare(
      "INSERT INTO TYPES (ID, S, L, B, N, N2, F, D, DT, TM, TS, BO, C, CO, V, VN, BT, BB, AR) "
      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  Firebird::IMessageMetadata* meta = insert->getInputMetadata(db.status());
  Message m(db.status(), meta);
  meta->release();
  const std::string words[] = {"", "a", "Grüße", "日本語", "x y  ", std::string(20, 'z')};
  for (int i = 0; i < rows; ++i) {
    for (std::size_t f = 0; f < m.count(); ++f) m.setNull(f, f > 0 && random() % 7 == 0);
    auto put = [&](std::size_t f, auto v) { std::memcpy(m.data(f), &v, sizeof v); };
    put(0, static_cast<std::int32_t>(i * 3 + 1));
    put(1, static_cast<std::int16_t>(random()));
    put(2, static_cast<std::int32_t>(random()));
    put(3, static_cast<std::int64_t>(random()) << 20 | random());
    put(4, static_cast<std::int64_t>(random()) - (1 << 30));
    put(5, static_cast<std::int16_t>(random() % 9999));
    put(6, static_cast<float>(random()) / 7.0f);
    put(7, static_cast<double>(random()) / 3.0);
    put(8, static_cast<std::int32_t>(random() % 100000));
    put(9, static_cast<std::uint32_t>(random() % 864000000));
    put(10, static_cast<std::uint64_t>(random() % 864000000) << 32 | random() % 100000);
    put(11, static_cast<std::uint8_t>(random() % 2));
    m.setText(12, random() % 2 ? "ab" : "\xe4\xf6");  // WIN1252 bytes
    m.setText(13, std::string("\0\1\2", 3));
    m.setText(14, words[random() % 6]);
    m.setText(15, "n" + std::to_string(random() % 1000));
    const ISC_QUAD text = db.createBlob(std::string(random() % 5 == 0 ? 100000 : 30, 'q'));
    const Bytes bin = randomBytes(random() % 3 == 0 ? 70000 : random() % 50, random());
    const ISC_QUAD binary =
        db.createBlob(std::string_view(reinterpret_cast<const char*>(bin.data()), bin.size()));
    std::int32_t elements[3] = {static_cast<std::int32_t>(random()), -1, i};
    const ISC_QUAD array = db.putArray(
        "TYPES", "AR", std::string_view(reinterpret_cast<const char*>(elements), sizeof elements));
    put(16, text);
    put(17, binary);
    put(18, array);
    insert->execute(db.status(), db.transaction(), m.metadata(), m.buffer(), nullptr, nullptr);
  }
  insert->free(db.status());
  for (int i = 0; i < rows; ++i) {
    db.execute("INSERT INTO PAIRS VALUES (" + std::to_string(i % 4) + ", " +
               quoted(std::to_string(i % 10) + "k" + std::to_string(i)) + ", " + std::to_string(i) +
               ")");
    db.execute("INSERT INTO LOOSE VALUES (" + std::to_string(i % 5) + ", 'l')");
  }
  db.commit();
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

// The snapshot applied into a replica with the source's schema, compared with the source.
std::string replicaDifference(const TempDir& dir, const std::string& output) {
  const std::string replicaPath = dir / ("replica-" + std::to_string(::rand()) + ".fdb");
  {
    Database replica(replicaPath, true);
    makeSchema(replica);
    ReplicaApplier applier(replica, ReplicaApplier::Conflicts::kError);
    const SnapshotStream stream(output);
    SnapshotApplier(replica, applier, stream).applyRows();
  }
  Database source(dir / "source.fdb", false);
  Database replica(replicaPath, false);
  const DatabaseComparer::Result r =
      DatabaseComparer::compare(source, replica, {ReplicaApplier::kPositionTable});
  return r.equal ? "" : r.difference;
}

// Every type and character set the plugin records, chunked at several sizes, read back by the
// decoder in key order and applied into a replica equal to the source.
TEST(SnapshotTest, EveryTypeChunkedInKeyOrderAndAppliedEqual) {
  TempDir dir;
  {
    Database db(dir / "source.fdb", true);
    makeSchema(db);
    fill(db, 7, 23);
  }
  struct Case {
    std::uint64_t chunkRows;
    std::vector<std::uint32_t> chunks;  // per table in name order: LOOSE, NOTHING, PAIRS, TYPES
  };
  const Case cases[] = {
      {1, {23, 0, 23, 23}}, {5, {5, 0, 5, 5}}, {23, {1, 0, 1, 1}}, {1000, {1, 0, 1, 1}}};
  for (const Case& c : cases) {
    SCOPED_TRACE("chunk rows " + std::to_string(c.chunkRows));
    const std::string out = dir / ("snap" + std::to_string(c.chunkRows));
    const SnapshotSummary s = snapshot(dir / "source.fdb", out, c.chunkRows);
    EXPECT_EQ(69u, s.rows);
    EXPECT_EQ(4u, s.tablesRead);
    const auto manifest = SnapshotManifest::load(out);
    ASSERT_TRUE(manifest);
    EXPECT_TRUE(manifest->complete);
    std::vector<std::string> names;
    std::vector<std::uint32_t> chunks;
    for (const auto& t : manifest->tables) {
      names.push_back(t.name);
      chunks.push_back(t.chunks);
      EXPECT_EQ(s.boundary.transaction(), t.boundary);
    }
    EXPECT_EQ((std::vector<std::string>{"LOOSE", "NOTHING", "PAIRS", "TYPES"}), names);
    EXPECT_EQ(c.chunks, chunks);
    // Files: the manifest and the chunks, nothing else.
    const std::vector<std::string> files = manifest->chunkFiles(out);
    EXPECT_EQ(files.size() + 1, listDirectory(out).size());
    std::vector<std::size_t> perFile;
    const std::vector<std::string> events = decodeAll(files, &perFile);
    ASSERT_EQ(69u, events.size());
    for (std::size_t n : perFile) EXPECT_LE(n, c.chunkRows);
    // Key order across the chunks: PAIRS by (B, A), TYPES by ID; the computed column is left out.
    std::vector<std::string> pairs, types;
    for (const std::string& e : events) {
      if (e.rfind("I|PAIRS|", 0) == 0) pairs.push_back(e);
      if (e.rfind("I|TYPES|", 0) == 0) types.push_back(e);
      EXPECT_EQ(std::string::npos, e.find("CALC")) << e;
    }
    ASSERT_EQ(23u, types.size());
    for (std::size_t i = 0; i < types.size(); ++i)
      EXPECT_THAT(types[i], ::testing::StartsWith("I|TYPES|ID:absent>long scale 0 " +
                                                  std::to_string(i * 3 + 1) + "|"));
    EXPECT_THAT(pairs[0],
                ::testing::HasSubstr("|B:absent>text3 cs4 30 6B 30|"));  // "0k0" sorts first
    EXPECT_EQ("", replicaDifference(dir, out));
  }
}

std::uint64_t transactionOf(Database& db) {
  return std::stoull(db.texts("SELECT CAST(CURRENT_TRANSACTION AS VARCHAR(20) CHARACTER SET UTF8) "
                              "FROM RDB$DATABASE")
                         .at(0)
                         .at(0));
}

// Writers in other attachments around the snapshot: one that committed before, one whose insert
// is open when the snapshot begins, one that started before but writes only after, one that starts
// after. Started between two looks at the active transactions, the reading transaction holds
// nobody: the open writer is active to it, its row not read. Started while the writers are held,
// it waits for the open writer, and then holds its row. Either way the boundary contains exactly
// the transactions whose rows were read.
TEST(SnapshotTest, BoundaryContainsExactlyWhatWasRead) {
  struct Method {
    const char* name;
    int unpausedAttempts;
    bool waits;
  };
  for (const Method& m : {Method{"two looks", 20, false}, Method{"writers held", 0, true}}) {
    SCOPED_TRACE(m.name);
    TempDir dir;
    const std::string path = dir / "source.fdb";
    {
      Database db(path, true);
      db.executeAlone("CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER)");
      db.executeAlone("CREATE TABLE U (ID INTEGER NOT NULL PRIMARY KEY)");
    }
    Database before(path, false), idle(path, false), open(path, false);
    before.execute("INSERT INTO T VALUES (1, 1)");
    const std::uint64_t committedBefore = transactionOf(before);
    before.commit();
    const std::uint64_t startedBefore = transactionOf(idle);
    open.execute("INSERT INTO T VALUES (2, 2)");
    const std::uint64_t openWriter = transactionOf(open);

    std::atomic<bool> finished{false};
    SnapshotSummary summary;
    std::string failure;
    std::thread reader([&] {
      try {
        summary = snapshot(path, dir / "snap", 10, m.unpausedAttempts);
      } catch (const std::exception& e) {
        failure = e.what();
      }
      finished = true;
    });
    ::usleep(600000);
    EXPECT_EQ(!m.waits, finished.load()) << "the snapshot waited for the open writer";
    open.commit();
    reader.join();
    ASSERT_EQ("", failure);
    idle.execute("INSERT INTO T VALUES (3, 3)");
    idle.commit();
    Database later(path, false);
    later.execute("INSERT INTO T VALUES (4, 4)");
    const std::uint64_t startedAfter = transactionOf(later);
    later.commit();

    EXPECT_EQ(m.waits, summary.paused);
    if (m.waits) {
      EXPECT_GE(summary.drainSeconds, 0.5);
    }
    EXPECT_GE(summary.pauseSeconds, summary.drainSeconds);
    const auto manifest = SnapshotManifest::load(dir / "snap");
    ASSERT_TRUE(manifest);
    const std::vector<std::string> rows = decodeAll(manifest->chunkFiles(dir / "snap"));
    ASSERT_EQ(m.waits ? 2u : 1u, rows.size());
    EXPECT_THAT(rows[0], ::testing::StartsWith("I|T|ID:absent>long scale 0 1|"));
    if (m.waits) {
      EXPECT_THAT(rows[1], ::testing::StartsWith("I|T|ID:absent>long scale 0 2|"));
    }
    struct Case {
      const char* what;
      std::uint64_t transaction;
      bool contained;
    };
    const Case cases[] = {{"committed before", committedBefore, true},
                          {"open writer", openWriter, m.waits},
                          {"started before, wrote after", startedBefore, false},
                          {"started after", startedAfter, false},
                          {"the snapshot's own", summary.boundary.transaction(), false}};
    for (const Case& c : cases) {
      EXPECT_EQ(c.contained, summary.boundary.contains(c.transaction)) << c.what;
      EXPECT_EQ(c.contained, manifest->contains("T", c.transaction)) << c.what;
      EXPECT_FALSE(manifest->contains("V", c.transaction)) << c.what << ": a table not in it";
    }
    EXPECT_THAT(summary.boundary.active(), ::testing::Contains(startedBefore));
  }
}

// A snapshot killed at random points and run again ends with the same files, byte for byte, as
// one that ran through; nothing of the killed runs is left.
TEST(SnapshotTest, KilledAndRunAgainEndsWithTheSameContent) {
  TempDir dir;
  {
    Database db(dir / "source.fdb", true);
    makeSchema(db);
    fill(db, 3, 150);
  }
  snapshot(dir / "source.fdb", dir / "straight", 4);
  std::mt19937 random(5);
  int killed = 0;
  for (int run = 0;; ++run) {
    const pid_t pid = spawn({FBCDC_CLI_PATH, "snapshot", "--database", dir / "source.fdb",
                             "--output", dir / "resumed", "--chunk-rows", "4"},
                            "/dev/null", dir / "err.txt");
    ASSERT_GT(pid, 0);
    // From a few milliseconds up: the first kill lands before any run can finish, on an idle
    // machine too.
    if (run < 4) ::usleep(random() % (10000 + 150000 * run));
    const int status = run < 4 ? stop(pid, SIGKILL) : waitFor(pid);
    if (status == -1) {
      ++killed;
      continue;
    }
    ASSERT_EQ(0, status) << readText(dir / "err.txt");
    break;
  }
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

// The manifest, names and boundaries refuse what their writers cannot have written.
TEST(SnapshotTest, ManifestNamesAndBoundariesRefuseDamage) {
  const std::string good =
      "fbcdc-snapshot 1\ndatabase\t/d.fdb\nboundary\t90 7,88\t1500\t1200\n"
      "table\tA B\t90\t2\t10\t999\ntable\tC\t0\t0\t0\t0\n";
  const SnapshotManifest m = SnapshotManifest::parse(good);
  EXPECT_EQ(good, m.text());
  EXPECT_TRUE(m.contains("A B", 89));
  EXPECT_FALSE(m.contains("A B", 88));
  EXPECT_FALSE(m.contains("A B", 90));
  EXPECT_FALSE(m.contains("C", 1));
  struct Case {
    std::string text;
    const char* error;
  };
  const Case cases[] = {
      {"fbcdc-snapshot 2\n", "not a snapshot manifest"},
      {good + "complete\n", "table C is not read"},
      {"fbcdc-snapshot 1\ntable\tA\t5\t1\t1\t1\n", "without a boundary line"},
      {"fbcdc-snapshot 1\nboundary\t5 -\t1\n", "unknown line"},
      {"fbcdc-snapshot 1\nboundary\t5 1,\t1\t1\n", "not a snapshot boundary"},
      {"fbcdc-snapshot 1\nboundary\t5 x\t1\t1\n", "not a snapshot boundary"},
      {"fbcdc-snapshot 1\ntable\tA\t0\t-1\t0\t0\n", "is not a number"},
      {"fbcdc-snapshot 1\ncomplete\ndatabase\tx\n", "a line after"},
  };
  for (const Case& c : cases) {
    std::string thrown = "nothing";
    try {
      SnapshotManifest::parse(c.text);
    } catch (const std::runtime_error& e) {
      thrown = e.what();
    }
    EXPECT_THAT(thrown, ::testing::HasSubstr(c.error)) << c.text;
  }

  SnapshotName n{0x1234abcdULL, 7, 42};
  EXPECT_EQ("snapshot-000000001234abcd-0007-000042.fbs", n.text());
  SnapshotName back;
  ASSERT_TRUE(SnapshotName::parse("/x/" + n.text(), back));
  EXPECT_EQ(n.boundary, back.boundary);
  EXPECT_EQ(n.table, back.table);
  EXPECT_EQ(n.chunk, back.chunk);
  for (const char* bad :
       {"snapshot-000000001234ABCD-0007-000042.fbs", "snapshot-000000001234abcd-0007-000042.fbl",
        "snapshot-000000001234abcd-007-0000042.fbs", "000000006553f103_00000000000004d2.fbl"})
    EXPECT_FALSE(SnapshotName::parse(bad, back)) << bad;
}

// A statement is judged by the table it changes; one that changes no table by every table.
TEST(SnapshotTest, StatementsAreJudgedByTheirTable) {
  const std::pair<const char*, const char*> targets[] = {
      {"UPDATE COUNTERS SET N = N + 1 WHERE ID = 0", "COUNTERS"},
      {"update or insert into t (a) values (1)", "T"},
      {"DELETE FROM \"a\"\"b\" WHERE 1 = 1", "a\"b"},
      {"  insert\ninto items values (1)", "ITEMS"},
      {"MERGE INTO Lines L USING", "LINES"},
      {"CREATE TABLE X (I INTEGER)", ""},
      {"SELECT 1 FROM RDB$DATABASE", ""},
      {"DELETE X", ""},
  };
  for (const auto& [sql, table] : targets) EXPECT_EQ(table, SnapshotStream::targetOf(sql)) << sql;

  // A read by a first run (boundary 100), B by a second after a kill (boundary 200).
  TempDir dir;
  writeFile(dir / "manifest",
            "fbcdc-snapshot 1\ndatabase\tdb\nboundary\t100 90\t1\t1\nboundary\t200 -\t1\t1\n"
            "table\tA\t100\t0\t0\t0\ntable\tB\t200\t0\t0\t0\ncomplete\n");
  const SnapshotStream stream(dir.path());
  struct Case {
    const char* sql;
    std::uint64_t transaction;
    bool contained;
  };
  const Case cases[] = {
      {"UPDATE B SET V = V + 1", 150, true},    {"UPDATE A SET V = V + 1", 150, false},
      {"UPDATE A SET V = V + 1", 50, true},     {"UPDATE A SET V = V + 1", 90, false},
      {"UPDATE C SET V = V + 1", 50, false},    {"CREATE TABLE D (I INTEGER)", 150, false},
      {"CREATE TABLE D (I INTEGER)", 50, true}, {"CREATE TABLE D (I INTEGER)", 90, false},
  };
  for (const Case& c : cases)
    EXPECT_EQ(c.contained, stream.containsStatement(c.sql, c.transaction))
        << c.sql << " of " << c.transaction;
}

}  // namespace
