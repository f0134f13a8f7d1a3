// Capture and replay on real databases: captured workloads, also under hot rows, applied to a
// replica, also by an applier killed halfway, leave it equal to the source; logs of one second
// apply in the order of publication; conflicts (a row missing, or differing from the log's old
// values) stop the applier or are resolved as asked; compare lists the differences.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <tuple>

#include "CaptureDriver.h"
#include "DatabaseComparer.h"
#include "EmbeddedDatabase.h"
#include "EventDescription.h"
#include "LiteralRow.h"
#include "LogDecoder.h"
#include "LogDirectory.h"
#include "LogName.h"
#include "PluginFixture.h"
#include "Processes.h"
#include "ReplicaApplier.h"
#include "ReplicaRuns.h"
#include "ValueText.h"
#include "Workload.h"

namespace {

ReplicaApplier::Summary applyAll(const TempDir& dir, ReplicaApplier::Conflicts conflicts,
                                 std::string* warnings = nullptr) {
  return applyDirectory(dir / "replica.fdb", dir / "logs", conflicts, warnings);
}

std::string difference(const TempDir& dir) {
  return differenceBetween(dir / "source.fdb", dir / "replica.fdb");
}

// A hot row's values as a log carries them, one string per state of the row: all but the blobs and
// the array, whose old values a log does not carry (and which hot-row updates do not set).
std::string state(const FieldList& fields, bool after) {
  std::string out;
  for (const FieldChange& f : fields)
    if (f.name != "DOC" && f.name != "RAW" && f.name != "GRID")
      out += std::string(f.name) + '=' + describe(after ? f.after : f.before) + '\n';
  return out;
}

// Under hot rows shared by every thread, each update's old image is the row as the commit before
// it left it: per hot row, its inserted state and each update's new state, less each update's old
// state, leave in a chain of updates only the last state, once. An old image read before the last
// commit's change shows as a state taken twice.
void expectUpdateChains(const std::string& directory, int hotRows) {
  std::map<std::int64_t, std::map<std::string, int>> states;
  int updates = 0;
  for (const LogFile& log : LogDirectory::list(directory)) {
    LogDecoder decoder;
    decoder.open(log.path);
    for (const ChangeEvent* e = &decoder.next(); e->kind != ChangeEvent::Kind::kEnd;
         e = &decoder.next()) {
      if (e->relation != "ITEMS" || e->kind == ChangeEvent::Kind::kSql) continue;
      const bool insert = e->kind == ChangeEvent::Kind::kInsert;
      const std::int64_t id = (insert ? e->fields[0].after : e->fields[0].before).integer;
      if (id > hotRows) continue;
      std::map<std::string, int>& row = states[id];
      if (!insert) --row[state(e->fields, false)], ++updates;
      ++row[state(e->fields, true)];
    }
  }
  EXPECT_EQ(static_cast<std::size_t>(hotRows), states.size());
  EXPECT_GT(updates, 40);
  for (const auto& [id, counts] : states) {
    int left = 0;
    for (const auto& [values, count] : counts) {
      EXPECT_GE(count, 0) << "hot row " << id << ": an old image that no commit left:\n" << values;
      left += count;
    }
    EXPECT_EQ(1, left) << "hot row " << id;
  }
}

// Captured workloads, also with hot rows that every thread updates, apply to an equal replica in
// whatever order their logs were published, and once.
TEST(ReplicaTest, CapturedWorkloadsApplyToAnEqualReplica) {
  // Seed, threads, transactions, largest blob, hot rows.
  const std::tuple<std::uint64_t, int, std::uint64_t, std::size_t, int> cases[] = {
      {1, 1, 120, 64 << 10, 0},
      {2, 3, 150, 256 << 10, 0},
      {3, 2, 60, 5 << 20, 0},
      {1, 4, 160, 64 << 10, 2},
      {2, 8, 160, 64 << 10, 3}};
  for (const auto& [seed, threads, transactions, maxBlob, hotRows] : cases) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", hot rows " + std::to_string(hotRows));
    TempDir dir;
    CaptureOptions o = captureInto(dir, seed, threads, transactions, maxBlob);
    o.pluginLibrary = FBCDC_PLUGIN_PATH;
    o.hotRows = hotRows;
    const CaptureSummary captured = CaptureDriver(o).run();
    EXPECT_GT(captured.rolledBack, 0u) << "whole transactions rolled back";
    std::size_t multiBlock = 0;
    for (const LogFile& log : LogDirectory::list(dir / "logs"))
      multiBlock += readFile(log.path).size() > 32768;
    EXPECT_GT(multiBlock, 3u);
    if (hotRows) {
      EXPECT_EQ(0u, captured.conflicts) << "hot rows are locked in one order";
      expectUpdateChains(dir / "logs", hotRows);
    }
    const ReplicaApplier::Summary applied = applyAll(dir, ReplicaApplier::Conflicts::kError);
    EXPECT_EQ(captured.rows, applied.rows);
    EXPECT_EQ(captured.statements, applied.statements);
    EXPECT_EQ("", difference(dir));
    // Exactly once: a second run finds every log applied.
    EXPECT_EQ(0u, applyAll(dir, ReplicaApplier::Conflicts::kError).logs);
    EXPECT_EQ("", difference(dir));
  }
}

// The applier is killed at random moments and started again until it finishes.
//
// Without blobs: Firebird 3.0.11 writes the page of a row updated with a new blob without first
// writing the blob's page, and a process killed in between leaves the row naming a blob that is
// gone or belongs to another row (fixed in the engine after that version). Compare would report
// it here, however the applier kept its position.
TEST(ReplicaTest, ApplierKilledHalfwayAndRunAgain) {
  TempDir dir;
  CaptureOptions o = captureInto(dir, 11, 2, 150, 0);
  o.pluginLibrary = FBCDC_PLUGIN_PATH;
  CaptureDriver(o).run();
  std::mt19937 random(11);
  for (int run = 0;; ++run) {
    const pid_t pid =
        spawn({FBCDC_CLI_PATH, "apply", "--database", dir / "replica.fdb", dir / "logs"},
              "/dev/null", dir / "err.txt");
    ASSERT_GT(pid, 0);
    if (run < 4) ::usleep(100000 + random() % 300000);
    const int status = run < 4 ? stop(pid, SIGKILL) : waitFor(pid);
    if (status != -1) {
      ASSERT_EQ(0, status) << readText(dir / "err.txt");
      break;
    }
  }
  EXPECT_EQ("", difference(dir));
  // Following, with nothing left to apply, it stops as a user stops it, attachment and all.
  for (int signal : {SIGINT, SIGTERM}) {
    const pid_t pid = spawn(
        {FBCDC_CLI_PATH, "apply", "--database", dir / "replica.fdb", "--follow", dir / "logs"},
        dir / "out.txt", dir / "err.txt");
    ::sleep(1);
    EXPECT_EQ(0, stop(pid, signal)) << readText(dir / "err.txt");
    EXPECT_THAT(readText(dir / "out.txt"), ::testing::HasSubstr("apply: 0 logs"));
  }
}

// A replica with a table keyed by ID and one without a key, and a plugin writing logs for them.
class ApplyCases : public PluginFixture {
 protected:
  void SetUp() override {
    PluginFixture::SetUp();
    Database replica(dir / "replica.fdb", true);
    replica.executeAlone("CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER)");
    replica.executeAlone("CREATE TABLE BAG (V INTEGER, B BLOB SUB_TYPE TEXT)");
    replica.executeAlone("INSERT INTO T VALUES (1, 10)");
    fillBag(replica);
  }

  // BAG has no primary key: two identical rows, and two that differ in their blob alone.
  static void fillBag(Database& db) {
    db.executeAlone("DELETE FROM BAG");
    for (const char* row : {"7, 'x'", "7, 'x'", "8, 'x'", "8, 'y'"})
      db.executeAlone(std::string("INSERT INTO BAG VALUES (") + row + ")");
  }

  // Publishes one log of transaction number holding a single change.
  void publish(std::uint64_t number, char kind, const char* table, int id, int v) {
    LiteralRow row(table);
    LiteralRow old(table);  // a row image has one cursor: the old image must be another
    if (std::string(table) == "T") row.addLong("ID", id), old.addLong("ID", id);
    row.addLong("V", v);
    old.addLong("V", v - 1);
    ReplTransaction* t = begin(number);
    if (kind == 'I') t->insertRecord(status, nullptr, nullptr, &row);
    if (kind == 'U') t->updateRecord(status, nullptr, nullptr, &old, &row);
    if (kind == 'D') t->deleteRecord(status, nullptr, nullptr, &row);
    ASSERT_EQ(0, t->commit(status));
    t->dispose();
    ::usleep(20000);  // the next log falls into a later tick of the file system's clock
  }

  // T's rows as "ID=V ", or BAG's as "V:B ".
  std::string rows(const std::string& table = "T") {
    Database replica(dir / "replica.fdb", false);
    std::string out;
    const std::string sql = table == "T" ? "SELECT ID, V FROM T ORDER BY ID"
                                         : "SELECT V, CAST(B AS VARCHAR(9)) FROM BAG ORDER BY 1, 2";
    forEachRow(replica, sql, [&](Message& m) {
      std::int32_t id, v = 0;
      std::memcpy(&id, m.data(0), 4);
      std::memcpy(&v, m.data(1), 4);
      out += std::to_string(id) +
             (table == "T" ? "=" + std::to_string(v) : ":" + std::string(m.text(1))) + " ";
    });
    return out;
  }
};

// A key deleted by one transaction and inserted again by the next, published within the same
// second, the second with the lower number: LogDirectory lists logs in the order of publication;
// by name the insert would come first and fail.
// Named one by one, in the wrong order and one of them twice, they are applied in publication
// order, each once; named again, a log is skipped with a note.
TEST_F(ApplyCases, PublicationOrderWithinOneSecond) {
  // Both names carry this second; the renames set the real times that tell the order.
  PosixFaults::setTime(::time(nullptr));
  publish(20, 'D', "T", 1, 10);
  const std::string deletion = logs + listDirectory(logs)[0];
  publish(10, 'I', "T", 1, 11);
  PosixFaults::setTime(0);
  std::string insertion;
  for (const std::string& name : listDirectory(logs))
    if (logs + name != deletion) insertion = logs + name;
  auto apply = [&](std::vector<std::string> paths) {
    std::vector<std::string> args = {FBCDC_CLI_PATH, "apply", "--database", dir / "replica.fdb"};
    args.insert(args.end(), paths.begin(), paths.end());
    return waitFor(spawn(args, dir / "out.txt", dir / "err.txt"));
  };
  EXPECT_EQ(0, apply({insertion, deletion, logs + "./" + LogName::baseName(deletion)}))
      << readText(dir / "err.txt");
  EXPECT_EQ("1=11 ", rows());
  EXPECT_EQ(0, apply({deletion}));
  EXPECT_THAT(readText(dir / "err.txt"), ::testing::HasSubstr("skipped, at or before"));
  EXPECT_EQ("1=11 ", rows());
}

// Two transactions that change one row commit one right after the other, and the later one's log
// may be published first. Logs published within the order window are applied in the order their
// old values admit; a statement never goes ahead of an earlier log, nor a log published later.
TEST_F(ApplyCases, LogsOfOneMomentApplyInTheOrderTheirOldValuesAdmit) {
  // The changes in order of publication as kind and V (publish()'s old V is V-1), ID 1 of T but
  // for an insert ('I': ID 2, 'S': a statement setting V to 11); '/' waits past the window. Then
  // the rows after, the logs applied ahead of earlier ones, and the error ("" for none).
  const std::tuple<const char*, const char*, std::uint64_t, const char*> cases[] = {
      {"U12 U11", "1=12 ", 1, ""},
      {"U12 I5 U11", "1=12 2=5 ", 2, ""},
      {"U12 U13 U11", "1=13 ", 1, ""},
      {"U12 / U11", "1=10 ", 0, "column V is 10 in the replica, 11 in the log"},
      {"U13 U11", "1=10 ", 0, "nor does it apply in another order with the 1 logs published"},
      {"U12 S", "1=10 ", 0, "nor does it apply in another order"},
  };
  std::uint64_t number = 1;
  for (const auto& [changes, expectedRows, reordered, error] : cases) {
    SCOPED_TRACE(changes);
    clearLogs();
    std::istringstream in(changes);
    for (std::string change; in >> change;) {
      if (change == "/") {
        ::usleep(ReplicaApplier::kOrderWindow / 1000 + 20000);
      } else if (change == "S") {
        ReplTransaction* t = begin(number++);
        ASSERT_EQ(0, t->executeSql(status, "UPDATE T SET V = 11 WHERE ID = 1", 1));
        ASSERT_EQ(0, t->commit(status));
        t->dispose();
      } else {
        const int v = std::stoi(change.substr(1));
        publish(number++, change[0], "T", change[0] == 'I' ? 2 : 1, v);
      }
    }
    std::string thrown;
    std::uint64_t ahead = 0;
    try {
      ahead = applyAll(dir, ReplicaApplier::Conflicts::kError).reordered;
    } catch (const ApplyError& e) {
      thrown = e.what();
    }
    EXPECT_EQ(reordered, ahead);
    EXPECT_THAT(thrown, ::testing::HasSubstr(error));
    EXPECT_EQ(*error == '\0', thrown.empty()) << thrown;
    EXPECT_EQ(expectedRows, rows());
    if (!*error) {
      EXPECT_EQ(0u, applyAll(dir, ReplicaApplier::Conflicts::kError).logs) << "once";
    }
    Database replica(dir / "replica.fdb", false);
    replica.executeAlone("DELETE FROM T WHERE ID <> 1");
    replica.executeAlone("UPDATE T SET V = 10");
    replica.executeAlone("DELETE FROM FBCDC_APPLIED");
    replica.executeAlone("INSERT INTO FBCDC_APPLIED (ID, LOGS_APPLIED) VALUES (1, 0)");
  }
}

// While following, a log that conflicts waits for the window after it, takes the log published
// just after it first, and the follower passes over that log when it hands it over in turn.
TEST_F(ApplyCases, AFollowingApplierOrdersTheLogsOfOneMoment) {
  const pid_t pid =
      spawn({FBCDC_CLI_PATH, "apply", "--database", dir / "replica.fdb", "--follow", logs},
            dir / "out.txt", dir / "err.txt");
  ::sleep(1);
  publish(2, 'U', "T", 1, 12);
  publish(1, 'U', "T", 1, 11);
  ::usleep(ReplicaApplier::kOrderWindow / 1000 + 200000);
  publish(3, 'U', "T", 1, 13);
  ::sleep(1);
  EXPECT_EQ(0, stop(pid, SIGTERM)) << readText(dir / "err.txt");
  EXPECT_THAT(readText(dir / "out.txt"), ::testing::HasSubstr("apply: 3 logs"));
  EXPECT_THAT(readText(dir / "out.txt"), ::testing::HasSubstr("1 logs applied ahead"));
  EXPECT_EQ("1=13 ", rows());
}

// A row missing, or differing from the log's old values: the default stops, naming log, event,
// table, key, column and both values, and the replica stays at the previous log; upsert and skip
// resolve it with a warning. In BAG (no primary key) one of two identical rows takes a change; of
// two rows that differ in what the log does not carry, neither does.
TEST_F(ApplyCases, ConflictsStopOrAreResolved) {
  using C = ReplicaApplier::Conflicts;
  const std::string differs = "table T, key ID=1: column V is 10 in the replica, ";
  // Change, table, ID, V (publish()'s old V is V-1, but V for a delete), mode, outcome (E stops,
  // W resolves with a warning, - applies), text expected in the error or warning, rows after.
  const std::tuple<char, const char*, int, int, C, char, std::string, const char*> cases[] = {
      {'I', "T", 1, 11, C::kError, 'E', "violation of PRIMARY or UNIQUE KEY", "1=10 "},
      {'I', "T", 1, 11, C::kUpsert, 'W', "insert of an existing row, applied as an", "1=11 "},
      {'U', "T", 2, 12, C::kError, 'E', "event 0: the updated row is missing", "1=10 "},
      {'U', "T", 2, 12, C::kSkip, 'E', "the updated row is missing", "1=10 "},
      {'U', "T", 2, 12, C::kUpsert, 'W', "update of a missing row, applied as", "1=10 2=12 "},
      {'D', "T", 2, 0, C::kError, 'E', "the deleted row is missing", "1=10 "},
      {'D', "T", 2, 0, C::kSkip, 'W', "delete of a missing row, skipped", "1=10 "},
      {'D', "T", 2, 0, C::kUpsert, 'W', "delete of a missing row, skipped", "1=10 "},
      {'U', "T", 1, 12, C::kError, 'E', "event 0: " + differs + "11 in the log", "1=10 "},
      {'U', "T", 1, 12, C::kUpsert, 'W', differs + "11 in the log; the log's new values", "1=12 "},
      {'U', "T", 1, 12, C::kSkip, 'W', differs + "11 in the log; the row left as it is", "1=10 "},
      {'D', "T", 1, 12, C::kError, 'E', differs + "12 in the log", "1=10 "},
      {'D', "T", 1, 12, C::kUpsert, 'W', differs + "12 in the log; the row deleted", ""},
      {'D', "T", 1, 12, C::kSkip, 'W', differs + "12 in the log; the row left as it is", "1=10 "},
      {'D', "BAG", 0, 7, C::kError, '-', "", "7:x 8:x 8:y "},
      {'U', "BAG", 0, 8, C::kError, '-', "", "7:x 8:x 8:x 8:y "},
      {'D', "BAG", 0, 8, C::kUpsert, 'E', "event 0: 2 rows of BAG hold the old",
       "7:x 7:x 8:x 8:y "},
      {'I', "GONE", 0, 7, C::kUpsert, 'E', "Table unknown", "1=10 "},
  };
  std::uint64_t number = 1;
  for (const auto& [kind, table, id, v, mode, outcome, text, expectedRows] : cases) {
    SCOPED_TRACE(std::string(1, kind) + " " + table + std::to_string(id) + " mode " +
                 std::to_string(static_cast<int>(mode)));
    clearLogs();
    publish(number++, kind, table, id, v);
    std::string error, warnings;
    std::uint64_t resolved = 0, interchangeable = 0;
    try {
      const ReplicaApplier::Summary s = applyAll(dir, mode, &warnings);
      resolved = s.resolved;
      interchangeable = s.interchangeable;
    } catch (const ApplyError& e) {
      error = e.what();
    }
    EXPECT_THAT(outcome == 'E' ? error : warnings, ::testing::HasSubstr(text));
    EXPECT_THAT(error, ::testing::HasSubstr(outcome == 'E' ? "log 0000" : "")) << "names the log";
    EXPECT_EQ(outcome == 'E', !error.empty()) << error;
    EXPECT_EQ(outcome == 'W' ? 1u : 0u, resolved);
    EXPECT_EQ(table == std::string("BAG") && outcome == '-' ? 1u : 0u, interchangeable);
    EXPECT_EQ(expectedRows, rows(table == std::string("BAG") ? "BAG" : "T"));
    Database replica(dir / "replica.fdb", false);
    ReplicaApplier applier(replica, mode);
    EXPECT_EQ(outcome != 'E', applier.position().isDone(LogDirectory::list(logs).at(0)));
    // Back to the starting rows for the next case.
    replica.executeAlone("DELETE FROM T WHERE ID <> 1");
    replica.executeAlone("UPDATE OR INSERT INTO T VALUES (1, 10)");
    fillBag(replica);
  }
}

// The check compares exactly what the log carries: a text by its bytes (not as a collation or a
// pad would), a FLOAT, a scaled number and a timestamp exactly, a null as a value. An old image
// equal to the row applies, CHAR pad and all; each that differs in one column stops, naming it.
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
  // Column changed in the old image, V's old value, the difference named ("" for none).
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"", "Ab", ""},
      {"C", "", "column C is '\xc3\xa9' in the replica, 'e' in the log"},
      {"V", "ab", "column V is 'Ab' in the replica, 'ab' in the log"},
      {"V", "Ab ", "column V is 'Ab' in the replica, 'Ab ' in the log"},
      {"O", "", "column O is x'6100' in the replica, x'61' in the log"},
      {"F", "", "column F is 0.1 in the replica, 0.10000001 in the log"},
      {"N", "", "column N is 12.34 in the replica, 12.35 in the log"},
      {"S", "", "column S is 2020-01-02T10:00:00.0000 in the replica, 2020-01-02T10:00:00.0001"},
      {"Z", "", "column Z is NULL in the replica, 5 in the log"},
  };
  std::uint64_t number = 1;
  for (const auto& [changed, v, expected] : cases) {
    SCOPED_TRACE(std::string(changed) + " " + v);
    clearLogs();
    LiteralRow old("X"), row("X");
    image(old, changed, v);
    image(row, "V", "new");
    ReplTransaction* t = begin(number++);
    t->updateRecord(status, nullptr, nullptr, &old, &row);
    ASSERT_EQ(0, t->commit(status));
    t->dispose();
    std::string error;
    try {
      applyAll(dir, ReplicaApplier::Conflicts::kError);
    } catch (const ApplyError& e) {
      error = e.what();
    }
    if (*expected)
      EXPECT_THAT(error, ::testing::HasSubstr("table X, key ID=1: " + std::string(expected)));
    else
      EXPECT_EQ("", error);
    Database(dir / "replica.fdb", false).executeAlone("UPDATE X SET V = 'Ab'");
  }
}

// compare lists each difference with both values, a row missing on one side once, up to
// --max-differences, and counts them all.
TEST_F(ApplyCases, CompareListsTheDifferences) {
  const std::string a = dir / "replica.fdb", b = dir / "other.fdb";
  {
    Database other(b, true);
    other.executeAlone("CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER)");
    other.executeAlone("CREATE TABLE BAG (V INTEGER, B BLOB SUB_TYPE TEXT)");
    other.executeAlone("INSERT INTO T VALUES (1, 11)");
    other.executeAlone("INSERT INTO T VALUES (3, 30)");
    fillBag(other);
    other.executeAlone("UPDATE BAG SET B = 'z' WHERE CAST(B AS VARCHAR(9)) = 'y'");
    Database(a, false).executeAlone("INSERT INTO T VALUES (2, 20)");
  }
  const std::string listed = "differ: table BAG, V=8: column B is blob 'y' (1 bytes) in " + a +
                             ", blob 'z' (1 bytes) in " + b +
                             "\ndiffer: table T, ID=1: column V is 10 in " + a + ", 11 in " + b +
                             "\n";
  const std::string rest = "differ: table T, ID=2: the row is only in " + a +
                           "\ndiffer: table T, ID=3: the row is only in " + b + "\n";
  for (const char* max : {"", "2"}) {
    std::vector<std::string> args = {FBCDC_CLI_PATH, "compare", a, b};
    if (*max) args.insert(args.end(), {"--max-differences", max});
    EXPECT_EQ(1, waitFor(spawn(args, dir / "out.txt", dir / "err.txt")));
    EXPECT_EQ(*max ? listed + "differ: 4 differences, 2 listed\n"
                   : listed + rest + "differ: 4 differences, 4 listed\n",
              readText(dir / "out.txt"));
  }
}

// The applier's table as an applier killed while it made it can leave it: listed, with columns
// the engine cannot read, and empty. It is made again; a table of that name holding rows is
// somebody else's and stops the applier. (A table of other columns stands in for the engine's
// unfinished one: both fail the position query and count no rows.)
TEST_F(ApplyCases, PositionTableLeftUnfinished) {
  publish(1, 'U', "T", 1, 11);
  const auto makeForeign = [&](const char* first) {
    Database replica(dir / "replica.fdb", false);
    if (*first) replica.executeAlone(first);
    replica.executeAlone("CREATE TABLE FBCDC_APPLIED (X INTEGER)");
  };
  makeForeign("");
  EXPECT_EQ(1u, applyAll(dir, ReplicaApplier::Conflicts::kError).logs);
  EXPECT_EQ("1=11 ", rows());
  EXPECT_EQ(0u, applyAll(dir, ReplicaApplier::Conflicts::kError).logs) << "the position is kept";
  makeForeign("DROP TABLE FBCDC_APPLIED");
  Database(dir / "replica.fdb", false).executeAlone("INSERT INTO FBCDC_APPLIED VALUES (1)");
  try {
    applyAll(dir, ReplicaApplier::Conflicts::kError);
    ADD_FAILURE() << "a table with rows was taken over";
  } catch (const ApplyError& e) {
    EXPECT_THAT(e.what(), ::testing::HasSubstr("holds rows but not the columns"));
  }
}

// A log that increments a value applies once, a double or a gap shows. Two appliers that read one
// position never both apply it: whether the second's transaction starts after the first's commit
// (it finds the position moved) or before it (the engine reports the conflict), its work is
// undone. Each transaction the applier commits holds one log's changes and that log's position,
// or neither: a trigger refusing the position's write, or the change's, leaves both out, and the
// next run applies the log once.
TEST_F(ApplyCases, ALogAppliesOnceWithItsPosition) {
  const auto increment = [&](std::uint64_t number) {
    clearLogs();
    ReplTransaction* t = begin(number);
    ASSERT_EQ(0, t->executeSql(status, "UPDATE T SET V = V + 1", 1));
    ASSERT_EQ(0, t->commit(status));
    t->dispose();
  };
  for (const bool overlapping : {false, true}) {
    SCOPED_TRACE(overlapping ? "overlapping transactions" : "one after the other");
    increment(overlapping ? 2 : 1);
    const LogFile log = LogDirectory::list(logs).at(0);
    Database a(dir / "replica.fdb", false), b(dir / "replica.fdb", false);
    ReplicaApplier first(a, ReplicaApplier::Conflicts::kError);
    ReplicaApplier second(b, ReplicaApplier::Conflicts::kError);
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
    EXPECT_THROW(applyAll(dir, ReplicaApplier::Conflicts::kError), ApplyError);
    EXPECT_EQ("1=12 ", rows()) << "nothing of the log without its position";
    Database(dir / "replica.fdb", false).executeAlone("DROP TRIGGER REFUSE");
  }
  EXPECT_EQ(1u, applyAll(dir, ReplicaApplier::Conflicts::kError).logs);
  EXPECT_EQ(0u, applyAll(dir, ReplicaApplier::Conflicts::kError).logs);
  EXPECT_EQ("1=13 ", rows()) << "applied once";
}

// The position names every log of one publication time, however many: a directory copied from
// one where a second saw thousands of commits, read by an applier that dates them by their names.
// An earlier version's table (the position in LAST_LOGS VARCHAR) is taken over with its position.
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
  publish(1, 'U', "T", 1, 11);
  Database replica(dir / "replica.fdb", false);
  ReplicaApplier applier(replica, ReplicaApplier::Conflicts::kError);
  EXPECT_EQ(earlier, applier.position().serialize()) << "the earlier layout's position is kept";
  applier.apply(LogDirectory::list(logs).at(0), FollowPosition::parse(many));
  EXPECT_EQ(many + "\n", applier.position().serialize());
  EXPECT_EQ("1=11 ", rows());
}

}  // namespace
