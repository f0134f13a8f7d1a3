// Capture and replay on real databases: captured workloads, also under hot rows and run again on
// one database, applied to a replica, also by an applier killed halfway, leave it equal to the
// source; logs of one second apply in the order of publication; conflicts (a row missing, or
// differing from the log's old values) stop the applier or are resolved as asked; compare lists the
// differences; an applier of few grants on a real server stops at what they do not allow. What the
// table-driven cases did is golden/*.txt, log names masked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <regex>
#include <sstream>
#include <tuple>

#include "Database.h"
#include "FbcdcRuns.h"
#include "FirebirdServer.h"
#include "LiteralRow.h"
#include "LogDirectory.h"
#include "LogName.h"
#include "PluginFixture.h"
#include "Processes.h"
#include "ReplicaRuns.h"
#include "ValueText.h"
#include "Workload.h"

namespace {

using C = ReplicaApplier::Conflicts;

// Captured workloads, also with hot rows that every thread updates, apply to an equal replica in
// whatever order their logs were published, and once. (Each update of a hot row carries the row as
// the commit before it left it: an old image read before that commit's change would stop the
// applier, which compares every old value the log carries.) Run again on one database (the second
// run another seed, the third the first's again: the same transactions once more), a workload never
// makes a key or a tag twice; each run's logs are applied before the next run.
TEST(ReplicaTest, CapturedWorkloadsApplyToAnEqualReplica) {
  // Seed, threads, transactions, largest blob, hot rows, runs.
  const std::tuple<std::uint64_t, int, std::uint64_t, std::size_t, int, int> cases[] = {
      {1, 1, 120, 64 << 10, 0, 1}, {2, 3, 150, 256 << 10, 0, 1}, {3, 2, 60, 5 << 20, 0, 1},
      {1, 4, 160, 64 << 10, 2, 1}, {2, 8, 160, 64 << 10, 3, 1},  {4, 2, 300, 64 << 10, 0, 3}};
  for (const auto& [seed, threads, transactions, maxBlob, hotRows, runs] : cases) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", hot rows " + std::to_string(hotRows));
    TempDir dir;
    for (int run = 0; run < runs; ++run) {
      const CaptureSummary c = captureRun(dir, FBCDC_PLUGIN_PATH, run == 1 ? seed + 6 : seed,
                                          threads, transactions, maxBlob, hotRows);
      EXPECT_GT(c.rolledBack, 0u) << "whole transactions rolled back";
      EXPECT_EQ(0u, c.conflicts) << "hot rows are locked in one order";
      const ReplicaApplier::Summary applied = applyLogs(dir);
      EXPECT_EQ(c.rows, applied.rows);
      EXPECT_EQ(c.statements, applied.statements);
    }
    std::size_t multiBlock = 0;
    for (const LogFile& log : LogDirectory::list(dir / "logs"))
      multiBlock += readFile(log.path).size() > 32768;
    EXPECT_GT(multiBlock, 3u);
    EXPECT_EQ("", differenceBetween(dir / "source.fdb", dir / "replica.fdb"));
    EXPECT_EQ(0u, applyLogs(dir).logs) << "exactly once: a second run finds every log applied";
    EXPECT_TRUE(Database(dir / "source.fdb", false)
                    .texts("SELECT CAST(TAG AS VARCHAR(20) CHARACTER SET UTF8) FROM NOTES "
                           "GROUP BY TAG HAVING COUNT(*) > 1")
                    .empty())
        << "a tag of the table without a key made twice";
  }
}

// The applier is killed at random moments and started again until it finishes.
//
// Without blobs: Firebird 3.0.11 writes the page of a row updated with a new blob without first
// writing the blob's page, and a process killed in between leaves the row naming a blob that is
// gone or belongs to another row (fixed in the engine after that version). Compare would report it
// here, however the applier kept its position.
TEST(ReplicaTest, ApplierKilledHalfwayAndRunAgain) {
  TempDir dir;
  captureRun(dir, FBCDC_PLUGIN_PATH, 11, 2, 150, 0);
  std::mt19937 random(11);
  runKilled({FBCDC_CLI_PATH, "apply", "--database", dir / "replica.fdb", dir / "logs"},
            dir / "err.txt", 4, [&](int) { return 100000 + random() % 300000; });
  EXPECT_EQ("", differenceBetween(dir / "source.fdb", dir / "replica.fdb"));
}

// A replica with a table keyed by ID and one without a key, and a plugin writing logs for them,
// one at a time, each in a later tick of the file system's clock.
class ApplyCases : public PluginFixture {
 protected:
  void SetUp() override {
    PluginFixture::SetUp();
    make(dir / "replica.fdb");
  }

  // Publishes the log of transaction number holding body's changes.
  void publish(std::uint64_t number, const std::function<void(ReplTransaction*)>& body) {
    ReplTransaction* t = begin(number);
    body(t);
    ASSERT_EQ(0, t->commit(status));
    t->dispose();
    awaitLaterFileTime(logs);
  }
  // Publishes the log of transaction number holding the statements.
  void publishSql(std::uint64_t number, const std::vector<std::string>& statements) {
    publish(number, [&](ReplTransaction* t) {
      for (const std::string& sql : statements) ASSERT_EQ(0, t->executeSql(status, sql.c_str(), 1));
    });
  }

  // Creates the database path with the tables, filled.
  static void make(const std::string& path) {
    Database db(path, true);
    db.executeAlone("CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER)");
    db.executeAlone("CREATE TABLE BAG (V INTEGER, B BLOB SUB_TYPE TEXT)");
    reset(db);
  }

  // T holds 1=10; BAG, which has no primary key, two identical rows and two that differ in their
  // blob alone.
  static void reset(Database& db) {
    db.executeAlone("DELETE FROM T");
    db.executeAlone("INSERT INTO T VALUES (1, 10)");
    db.executeAlone("DELETE FROM BAG");
    for (const char* row : {"7, 'x'", "7, 'x'", "8, 'x'", "8, 'y'"})
      db.executeAlone(std::string("INSERT INTO BAG VALUES (") + row + ")");
  }

  // Publishes the log of transaction number changing one row: kind 'I', 'U' or 'D', in table, of ID
  // id (T only) and V v, the old V v - 1.
  void publishChange(std::uint64_t number, char kind, const std::string& table, int id, int v) {
    LiteralRow row(table.c_str());
    LiteralRow old(table.c_str());  // a row image has one cursor: the old image must be another
    if (table == "T") row.addLong("ID", id), old.addLong("ID", id);
    row.addLong("V", v);
    old.addLong("V", v - 1);
    publish(number, [&](ReplTransaction* t) {
      if (kind == 'I') t->insertRecord(status, nullptr, nullptr, &row);
      if (kind == 'U') t->updateRecord(status, nullptr, nullptr, &old, &row);
      if (kind == 'D') t->deleteRecord(status, nullptr, nullptr, &row);
    });
  }

  // T's rows as "ID=V ", or BAG's as "V:B ".
  std::string rows(const std::string& table = "T") {
    std::string out;
    for (const Strings& row :
         Database(dir / "replica.fdb", false)
             .texts(table == "T" ? "SELECT ID || '=' || V FROM T ORDER BY ID"
                                 : "SELECT V || ':' || CAST(B AS VARCHAR(9)) FROM BAG ORDER BY 1"))
      out += row[0] + " ";
    return out;
  }

  // What applying the logs in mode did: the error, or the figures and the warnings; then the rows
  // of table, unless it is "".
  std::string attempt(C mode, const std::string& table = "T") {
    std::string out;
    try {
      const ReplicaApplier::Summary s = applyLogs(dir, mode, &out);
      out = "applied " + std::to_string(s.logs) + " logs, " + std::to_string(s.reordered) +
            " ahead, " + std::to_string(s.resolved) + " resolved, " +
            std::to_string(s.interchangeable) + " interchangeable\n" + out;
    } catch (const ApplyError& e) {
      out = std::string("error: ") + e.what() + "\n";
    }
    out = std::regex_replace(out, std::regex("[0-9a-f]{16}_[0-9a-f]{16}"), "#");
    return table.empty() ? out : out + "rows: " + rows(table) + "\n";
  }
};

// A key deleted by one transaction and inserted again by the next, published within the same
// second, the second with the lower number: LogDirectory lists logs in the order of publication; by
// name the insert would come first and fail. Named one by one, in the wrong order and one of them
// twice, they are applied in publication order, each once; named again, a log is skipped with a
// note.
TEST_F(ApplyCases, PublicationOrderWithinOneSecond) {
  // Both names carry this second; the renames set the real times that tell the order.
  PosixFaults::setTime(::time(nullptr));
  publishChange(20, 'D', "T", 1, 10);
  const std::string deletion = logs + listDirectory(logs)[0];
  publishChange(10, 'I', "T", 1, 11);
  PosixFaults::setTime(0);
  std::string insertion;
  for (const std::string& name : listDirectory(logs))
    if (logs + name != deletion) insertion = logs + name;
  const FbcdcOutcome o = runFbcdc(dir, {"apply", "--database", dir / "replica.fdb", insertion,
                                        deletion, logs + "./" + LogName::baseName(deletion)});
  EXPECT_EQ(0, o.status) << o.err;
  EXPECT_EQ("1=11 ", rows());
  const FbcdcOutcome again = runFbcdc(dir, {"apply", "--database", dir / "replica.fdb", deletion});
  EXPECT_EQ(0, again.status);
  EXPECT_THAT(again.err, ::testing::HasSubstr("skipped, at or before"));
  EXPECT_EQ("1=11 ", rows());
}

// Two transactions that change one row commit one right after the other, and the later one's log
// may be published first. Logs published within the order window are applied in the order their old
// values admit; a statement never goes ahead of an earlier log, nor a log published later. Each
// case is the changes in order of publication as kind and V (publishChange's old V is V-1), ID 1 of
// T but for an insert ('I': ID 2, 'S': a statement setting V to 11); '/' waits past the window.
// Where they applied, a second run applies nothing.
TEST_F(ApplyCases, LogsOfOneMomentApplyInTheOrderTheirOldValuesAdmit) {
  std::uint64_t number = 1;
  std::string transcript;
  for (const char* changes :
       {"U12 U11", "U12 I5 U11", "U12 U13 U11", "U12 / U11", "U13 U11", "U12 S"}) {
    clearLogs();
    std::istringstream in(changes);
    for (std::string change; in >> change;) {
      if (change == "/")
        ::usleep(ReplicaApplier::kOrderWindow / 1000 + 20000);
      else if (change == "S")
        publishSql(number++, {"UPDATE T SET V = 11 WHERE ID = 1"});
      else
        publishChange(number++, change[0], "T", change[0] == 'I' ? 2 : 1,
                      std::stoi(change.substr(1)));
    }
    const std::string outcome = attempt(C::kError);
    transcript += std::string("## ") + changes + "\n" + outcome;
    if (outcome.rfind("error", 0) != 0) transcript += "again: " + attempt(C::kError, "");
    ::unlink((dir / "replica.fdb").c_str());  // a fresh replica for the next case
    make(dir / "replica.fdb");
  }
  expectGolden("replica/golden/one_moment.txt", transcript);
}

// While following, a log that conflicts waits for the window after it, takes the log published just
// after it first, and the follower passes over that log when it hands it over in turn. Idle, it
// stops as a user stops it, attachment and all (SIGTERM: MetricsTest).
TEST_F(ApplyCases, AFollowingApplierOrdersTheLogsOfOneMoment) {
  const pid_t pid =
      spawn({FBCDC_CLI_PATH, "apply", "--database", dir / "replica.fdb", "--follow", logs},
            dir / "out.txt", dir / "err.txt");
  ::sleep(1);
  publishChange(2, 'U', "T", 1, 12);
  publishChange(1, 'U', "T", 1, 11);
  ::usleep(ReplicaApplier::kOrderWindow / 1000 + 200000);
  publishChange(3, 'U', "T", 1, 13);
  ::sleep(1);
  EXPECT_EQ(0, stop(pid, SIGINT)) << readText(dir / "err.txt");
  EXPECT_THAT(readText(dir / "out.txt"), ::testing::HasSubstr("apply: 3 logs"));
  EXPECT_THAT(readText(dir / "out.txt"), ::testing::HasSubstr("1 logs applied ahead"));
  EXPECT_EQ("1=13 ", rows());
}

// A row missing, or differing from the log's old values, in each mode: the default stops, naming
// log, event, table, key, column and both values, and the replica stays at the previous log; upsert
// and skip resolve it with a warning. In BAG (no primary key) one of two identical rows takes a
// change; of two rows that differ in what the log does not carry, neither does. Each change is
// kind, table, ID and V (publishChange's old V is V-1, but V for a delete).
TEST_F(ApplyCases, ConflictsStopOrAreResolved) {
  const std::pair<C, const char*> modes[] = {
      {C::kError, "error"}, {C::kSkip, "skip"}, {C::kUpsert, "upsert"}};
  std::uint64_t number = 1;
  std::string transcript;
  for (const char* change : {"I T 1 11", "U T 2 12", "D T 2 0", "U T 1 12", "D T 1 12", "D BAG 0 7",
                             "U BAG 0 8", "D BAG 0 8", "I GONE 0 7"}) {
    for (const auto& [mode, name] : modes) {
      clearLogs();
      std::istringstream in(change);
      char kind;
      std::string table;
      int id, v;
      in >> kind >> table >> id >> v;
      publishChange(number++, kind, table, id, v);
      const std::string outcome = attempt(mode, table == "BAG" ? "BAG" : "T");
      transcript += std::string("## ") + change + ", " + name + "\n" + outcome;
      Database replica(dir / "replica.fdb", false);
      EXPECT_EQ(outcome.rfind("error", 0) != 0,
                ReplicaApplier(replica, mode).position().isDone(LogDirectory::list(logs).at(0)))
          << change << ", " << name << ": the position moves with the log's changes alone";
      reset(replica);
    }
  }
  expectGolden("replica/golden/conflicts.txt", transcript);
}

// The check compares exactly what the log carries: a text by its bytes (not as a collation or a pad
// would), a FLOAT, a scaled number and a timestamp exactly, a null as a value. An old image equal
// to the row applies, CHAR pad and all; each that differs in one column stops, naming it.
TEST_F(ApplyCases, OldValuesAreComparedExactly) {
  {
    Database replica(dir / "replica.fdb", false);
    replica.executeAlone(
        "CREATE TABLE X (ID INTEGER NOT NULL PRIMARY KEY, C CHAR(4) CHARACTER SET UTF8, "
        "V VARCHAR(8) CHARACTER SET UTF8 COLLATE UNICODE_CI, O VARCHAR(4) CHARACTER SET OCTETS, "
        "F FLOAT, N NUMERIC(9,2), S TIMESTAMP, Z INTEGER)");
    replica.executeAlone(
        "INSERT INTO X VALUES (1, _UTF8 '\xc3\xa9', 'Ab', x'6100', 0.1, 12.34, "
        "'2020-01-02 10:00:00', NULL)");
  }
  const std::int32_t day =
      static_cast<std::int32_t>(ValueText::daysFromCivil(2020, 1, 2) + ValueText::kUnixEpochDay);
  const std::uint32_t time = 36000 * 10000;
  // The image with column `changed` changed; v is V's value.
  const auto image = [&](LiteralRow& r, const std::string& changed, const std::string& v) {
    r.addLong("ID", 1)
        .addChar("C",
                 changed == "C" ? "e" + std::string(15, ' ') : "\xc3\xa9" + std::string(14, ' '), 4)
        .addVarchar("V", changed == "V" ? v : "Ab", 4)
        .addVarchar("O", changed == "O" ? "a" : std::string("a\0", 2), 1)
        .addFloat("F", changed == "F" ? std::nextafter(0.1f, 1.0f) : 0.1f)
        .addLong("N", changed == "N" ? 1235 : 1234, -2)
        .addTimestamp("S", day, time + (changed == "S"));
    if (changed == "Z")
      r.addLong("Z", 5);
    else
      r.addNull("Z", 9);
  };
  // Column changed in the old image, and V's old value.
  const std::pair<const char*, const char*> cases[] = {{"", "Ab"},   {"C", ""}, {"V", "ab"},
                                                       {"V", "Ab "}, {"O", ""}, {"F", ""},
                                                       {"N", ""},    {"S", ""}, {"Z", ""}};
  std::uint64_t number = 1;
  std::string transcript;
  for (const auto& [changed, v] : cases) {
    clearLogs();
    LiteralRow old("X"), row("X");
    image(old, changed, v);
    image(row, "V", "new");
    publish(number++, [&](ReplTransaction* t) {
      ASSERT_EQ(0, t->updateRecord(status, nullptr, nullptr, &old, &row));
    });
    transcript += std::string("## ") + (*changed ? changed : "none") + " '" + v + "'\n" +
                  attempt(C::kError, "");
    Database(dir / "replica.fdb", false).executeAlone("UPDATE X SET V = 'Ab'");
  }
  expectGolden("replica/golden/old_values.txt", transcript);
}

// compare lists each difference with both values, a row missing on one side once, up to
// --max-differences, and counts them all; the lines and what they print are golden/compare.txt.
TEST_F(ApplyCases, CompareListsTheDifferences) {
  make(dir / "other.fdb");
  {
    Database other(dir / "other.fdb", false);
    other.executeAlone("UPDATE OR INSERT INTO T VALUES (1, 11)");
    other.executeAlone("INSERT INTO T VALUES (3, 30)");
    other.executeAlone("UPDATE BAG SET B = 'z' WHERE CAST(B AS VARCHAR(9)) = 'y'");
    Database(dir / "replica.fdb", false).executeAlone("INSERT INTO T VALUES (2, 20)");
  }
  const std::string transcript =
      transcriptOf(dir, linesOf("replica/golden/compare.txt")[0].second, {{"$/", dir.path()}});
  expectGolden("replica/golden/compare.txt", replaceAll(transcript, dir.path(), "$/"));
}

// The applier's table as an applier killed while it made it can leave it: listed, with columns the
// engine cannot read, and empty. It is made again; a table of that name holding rows is somebody
// else's and stops the applier. (A table of other columns stands in for the engine's unfinished
// one: both fail the position query and count no rows.)
TEST_F(ApplyCases, PositionTableLeftUnfinished) {
  publishChange(1, 'U', "T", 1, 11);
  Database(dir / "replica.fdb", false).executeAlone("CREATE TABLE FBCDC_APPLIED (X INTEGER)");
  EXPECT_EQ(1u, applyLogs(dir).logs);
  EXPECT_EQ("1=11 ", rows());
  EXPECT_EQ(0u, applyLogs(dir).logs) << "the position is kept";
  {
    Database replica(dir / "replica.fdb", false);
    replica.executeAlone("DROP TABLE FBCDC_APPLIED");
    replica.executeAlone("CREATE TABLE FBCDC_APPLIED (X INTEGER)");
    replica.executeAlone("INSERT INTO FBCDC_APPLIED VALUES (1)");
  }
  EXPECT_THAT(attempt(C::kError, ""), ::testing::HasSubstr("holds rows but not the columns"));
}

// A log that increments a value applies once, a double or a gap shows. Two appliers that read one
// position never both apply it: whether the second's transaction starts after the first's commit
// (it finds the position moved) or before it (the engine reports the conflict), its work is undone.
// Each transaction the applier commits holds one log's changes and that log's position, or neither:
// a trigger refusing the position's write, or the change's, leaves both out, and the next run
// applies the log once.
TEST_F(ApplyCases, ALogAppliesOnceWithItsPosition) {
  const auto increment = [&](std::uint64_t number) {
    clearLogs();
    publishSql(number, {"UPDATE T SET V = V + 1"});
  };
  for (const bool overlapping : {false, true}) {
    SCOPED_TRACE(overlapping ? "overlapping transactions" : "one after the other");
    increment(overlapping ? 2 : 1);
    const LogFile log = LogDirectory::list(logs).at(0);
    Database a(dir / "replica.fdb", false), b(dir / "replica.fdb", false);
    ReplicaApplier first(a, C::kError), second(b, C::kError);
    FollowPosition p1 = first.position(), p2 = second.position();
    p1.advance(log);
    p2.advance(log);
    if (overlapping) b.transaction();  // its snapshot is taken before the first's commit
    first.apply(log, p1);
    EXPECT_THROW(second.apply(log, p2), ApplyError);
    EXPECT_EQ(overlapping ? "1=12 " : "1=11 ", rows()) << "applied once";
  }
  increment(3);
  Database(dir / "replica.fdb", false).executeAlone("CREATE EXCEPTION REFUSED 'refused'");
  for (const char* table : {"FBCDC_APPLIED", "T"}) {
    SCOPED_TRACE(table);
    Database(dir / "replica.fdb", false)
        .executeAlone(std::string("CREATE TRIGGER REFUSE FOR ") + table +
                      " BEFORE UPDATE AS BEGIN EXCEPTION REFUSED; END");
    EXPECT_THROW(applyLogs(dir), ApplyError);
    EXPECT_EQ("1=12 ", rows()) << "nothing of the log without its position";
    Database(dir / "replica.fdb", false).executeAlone("DROP TRIGGER REFUSE");
  }
  EXPECT_EQ(1u, applyLogs(dir).logs);
  EXPECT_EQ(0u, applyLogs(dir).logs);
  EXPECT_EQ("1=13 ", rows()) << "applied once";
}

// The position names every log of one publication time, however many: a directory copied from one
// where a second saw thousands of commits, read by an applier that dates them by their names. An
// earlier version's table (the position in LAST_LOGS VARCHAR) is taken over with its position.
TEST_F(ApplyCases, PositionOfAnySizeAndFromAnEarlierLayout) {
  const std::string earlier = "1000000000000000000 000000003b9aca00_0000000000000001.fbl\n";
  {
    Database replica(dir / "replica.fdb", false);
    replica.executeAlone(
        "CREATE TABLE FBCDC_APPLIED (ID INTEGER NOT NULL, "
        "LAST_LOGS VARCHAR(32000) CHARACTER SET NONE NOT NULL)");
    replica.executeAlone("INSERT INTO FBCDC_APPLIED VALUES (1, '" + earlier + "')");
  }
  std::string many = "2000000000000000000";
  for (int i = 0; i < 2000; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, " 0000000077359400_%016x.fbl", i);
    many += name;
  }
  ASSERT_GT(many.size(), 32000u);
  publishChange(1, 'U', "T", 1, 11);
  Database replica(dir / "replica.fdb", false);
  ReplicaApplier applier(replica, C::kError);
  EXPECT_EQ(earlier, applier.position().serialize()) << "the earlier layout's position is kept";
  applier.apply(LogDirectory::list(logs).at(0), FollowPosition::parse(many));
  EXPECT_EQ(many + "\n", applier.position().serialize());
  EXPECT_EQ("1=11 ", rows());
}

// The capture driver reports exactly what the database changed: a statement that changed two rows
// stops the driver naming it. (Runs again on one database, and hot rows, are the round trips
// above.)
TEST(WorkloadTest, AStatementChangingTwoRowsStopsTheDriver) {
  TempDir dir;
  const std::string source = dir / "src.fdb";
  {
    // Two notes of one tag, the last of the range that the next run takes: the notes it finds when
    // it looks beyond its own.
    Database db(source, true);
    Workload::createSchema(db);
    const std::int64_t last = std::stoll(db.texts("SELECT CAST(GEN_ID(WORKLOAD_KEYS, 0) AS "
                                                  "VARCHAR(24) CHARACTER SET UTF8) FROM "
                                                  "RDB$DATABASE")[0][0]) +
                              Workload::kKeyRange;
    for (const char* n : {"1", "2"})
      db.execute("INSERT INTO NOTES (TAG, N) VALUES ('" + Workload::noteTag(last) + "', " + n +
                 ")");
    db.commit();
  }
  const FbcdcOutcome o = runFbcdc(
      dir, {"capture", "--database", source, "--output", dir / "logs", "--transactions", "100"});
  EXPECT_EQ(1, o.status) << o.out;
  EXPECT_THAT(o.err, ::testing::HasSubstr(" NOTES "));
  EXPECT_THAT(
      o.err, ::testing::HasSubstr(" WHERE TAG = ? changed 2 rows where the plugin is told of one"));
}

// What the DBA runs on the replica of LeastPrivilegeTest (the grants of docs/security.md).
const char kReplicaSchema[] =
    "CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER);\n"
    "CREATE TABLE SECRET (ID INTEGER);\n"
    "CREATE TABLE FBCDC_APPLIED (ID INTEGER NOT NULL, LOGS_APPLIED BIGINT NOT NULL,\n"
    "  LAST_POSITION BLOB SUB_TYPE TEXT CHARACTER SET NONE);\n"
    "SET TERM ^;\n"
    "CREATE PROCEDURE BUMP AS BEGIN UPDATE T SET V = V + 100 WHERE ID = 1; END^\n"
    "CREATE PROCEDURE HIDDEN AS BEGIN DELETE FROM T; END^\n"
    "SET TERM ;^\n"
    "GRANT UPDATE, SELECT ON T TO PROCEDURE BUMP;\n"
    "GRANT DELETE, SELECT ON T TO PROCEDURE HIDDEN;\n"
    "CREATE USER FBCDC_APPLY PASSWORD 'apply-pw';\n"
    "GRANT SELECT, INSERT, UPDATE, DELETE ON T TO USER FBCDC_APPLY;\n"
    "GRANT SELECT, INSERT, UPDATE ON FBCDC_APPLIED TO USER FBCDC_APPLY;\n"
    "GRANT EXECUTE ON PROCEDURE BUMP TO USER FBCDC_APPLY;\n"
    "INSERT INTO T VALUES (1, 10);\n";

// The applier as a dedicated user of a real Firebird server, holding only the grants that
// docs/security.md lists: the replicated table's rows, the position table that the DBA made, and
// EXECUTE on the one procedure that statement records run; a snapshot of the table it may read
// needs nothing more. Logs within those grants apply; a statement record outside them stops the
// applier with the server's reason, and the replica stays at the log before it. Without
// FBCDC_APPLIED made by the DBA, the applier makes it, which a user without CREATE TABLE may not:
// it stops before any log. Each run of the applier is in golden/least_privilege.txt, with the
// server's name of the test's directory as $/.
using LeastPrivilegeTest = ApplyCases;

TEST_F(LeastPrivilegeTest, StatementOutsideTheGrantsStopsTheApplier) {
  FirebirdServer server(dir / "server");
  ASSERT_TRUE(server.ready()) << server.why();
  server.createDatabase(dir / "granted.fdb", kReplicaSchema);
  server.createDatabase(dir / "bare.fdb",
                        "CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER);\n"
                        "GRANT SELECT, INSERT, UPDATE, DELETE ON T TO USER FBCDC_APPLY;\n");
  writeFile(dir / "apply.pw", "apply-pw\n");
  ::chmod((dir / "apply.pw").c_str(), 0600);
  // fbcdc apply to database as the replication user: its exit status and errors; then the replica's
  // rows of T and its position's count of logs, read as SYSDBA, spaces collapsed.
  std::string transcript;
  const auto apply = [&](const std::string& database) {
    const FbcdcOutcome o =
        runFbcdc(dir, {"apply", "--database", server.database(dir / database), "--user",
                       "FBCDC_APPLY", "--password-file", dir / "apply.pw", logs});
    const FirebirdServer::Result r =
        server.isql("CONNECT '" + server.database(dir / "granted.fdb") +
                    "';\nSET HEADING OFF;\nSELECT 'T', ID, V FROM T ORDER BY ID;\n"
                    "SELECT 'APPLIED', LOGS_APPLIED FROM FBCDC_APPLIED;\n");
    EXPECT_EQ(0, r.status) << r.output;
    transcript += "apply to " + database + ": exit " + std::to_string(o.status) + "\n" + o.err +
                  "replica:" + std::regex_replace(r.output, std::regex("\\s+"), " ") + "\n";
  };
  // A snapshot of the table it may read, as the same user: no administrator needed.
  const FbcdcOutcome snap =
      runFbcdc(dir, {"snapshot", "--database", server.database(dir / "granted.fdb"), "--tables",
                     "T", "--output", dir / "snap", "--user", "FBCDC_APPLY", "--password-file",
                     dir / "apply.pw"});
  transcript += "snapshot of T: exit " + std::to_string(snap.status) + "\n";
  // Within the grants: a row inserted, a statement on the table, the granted procedure.
  publishChange(1, 'I', "T", 2, 20);
  publishSql(2, {"UPDATE T SET V = V + 1 WHERE ID = 2"});
  publishSql(3, {"EXECUTE PROCEDURE BUMP"});
  apply("bare.fdb");
  apply("granted.fdb");
  // Outside the grants, after a change within them in the same log: it must not stay either.
  std::uint64_t number = 10;
  for (const char* sql :
       {"DELETE FROM SECRET", "EXECUTE PROCEDURE HIDDEN", "CREATE TABLE MORE (ID INTEGER)",
        "GRANT DELETE ON SECRET TO USER FBCDC_APPLY"}) {
    publishSql(number++, {"UPDATE T SET V = 0", sql});
    transcript += std::string("## ") + sql + "\n";
    apply("granted.fdb");
    ::unlink((logs + listDirectory(logs).back()).c_str());
  }
  expectGolden("replica/golden/least_privilege.txt",
               std::regex_replace(replaceAll(transcript, server.database(dir.path()), "$/"),
                                  std::regex("[0-9a-f]{16}_[0-9a-f]{16}"), "#"));
}

}  // namespace
