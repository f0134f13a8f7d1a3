// The capture driver reports exactly what the database changed: runs again on one database never
// reuse a key or a tag and leave a replica equal to the source; a statement that changed two rows
// stops the driver naming it; under hot rows shared by every thread, each update's old image is
// the row as the commit before it left it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <tuple>

#include "CaptureDriver.h"
#include "LogDecoder.h"
#include "LogDirectory.h"
#include "Processes.h"
#include "ReplicaRuns.h"
#include "TestFiles.h"
#include "Workload.h"

namespace {

using ::testing::HasSubstr;

struct Outcome {
  int status;
  std::string out, err;
};

Outcome fbcdc(const TempDir& dir, std::vector<std::string> args) {
  args.insert(args.begin(), FBCDC_CLI_PATH);
  const int status = waitFor(spawn(args, dir / "out.txt", dir / "err.txt"));
  return {status, readText(dir / "out.txt"), readText(dir / "err.txt")};
}

TEST(WorkloadTest, RunsAgainOnOneDatabaseLeaveAnEqualReplica) {
  TempDir dir;
  const std::string source = dir / "src.fdb", replica = dir / "rep.fdb";
  // The second run another seed, the third the first's again: the same transactions once more.
  // 300 a run: enough for the second to make a tag twice when keys began above those of ITEMS.
  for (const std::vector<std::string>& more :
       {std::vector<std::string>{"--replica", replica}, {"--seed", "7"}, {}}) {
    std::vector<std::string> args = {"capture",  "--database",     source,
                                     "--output", dir / "logs",     "--threads",
                                     "2",        "--transactions", "300"};
    args.insert(args.end(), more.begin(), more.end());
    const Outcome o = fbcdc(dir, args);
    ASSERT_EQ(0, o.status) << o.err;
  }
  {
    Database db(source, false);
    EXPECT_EQ(0u, db.texts("SELECT CAST(TAG AS VARCHAR(20) CHARACTER SET UTF8) FROM NOTES "
                           "GROUP BY TAG HAVING COUNT(*) > 1")
                      .size())
        << "a tag of the table without a key made twice";
  }
  Outcome o = fbcdc(dir, {"apply", "--database", replica, dir / "logs"});
  ASSERT_EQ(0, o.status) << o.err;
  o = fbcdc(dir, {"compare", source, replica});
  EXPECT_EQ(0, o.status) << o.out << o.err;
  EXPECT_THAT(o.out, HasSubstr("equal"));
}

TEST(WorkloadTest, AStatementChangingTwoRowsStopsTheDriver) {
  TempDir dir;
  const std::string source = dir / "src.fdb";
  {
    // Two notes of one tag, the last of the range that the next run takes: the notes it finds
    // when it looks beyond its own.
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
  const Outcome o = fbcdc(
      dir, {"capture", "--database", source, "--output", dir / "logs", "--transactions", "100"});
  EXPECT_EQ(1, o.status) << o.out;
  EXPECT_THAT(o.err, HasSubstr(" NOTES "));
  EXPECT_THAT(o.err, HasSubstr(" WHERE TAG = ? changed 2 rows where the plugin is told of one"));
}

// A hot row's values as a log carries them, one string per state of the row: all but the blobs and
// the array, whose old values a log does not carry (and which hot-row updates do not set).
std::string state(const FieldList& fields, bool after) {
  std::string out;
  char number[64];
  for (const FieldChange& f : fields) {
    const FieldValue& v = after ? f.after : f.before;
    if (f.name == "DOC" || f.name == "RAW" || f.name == "GRID") continue;
    out += std::string(f.name) + '=';
    switch (v.kind) {
      case FieldValue::Kind::kNull:
        out += "null";
        break;
      case FieldValue::Kind::kText:
        out += v.bytes;
        break;
      case FieldValue::Kind::kFloat:
      case FieldValue::Kind::kDouble:
        std::snprintf(number, sizeof number, "%a", v.real);
        out += number;
        break;
      case FieldValue::Kind::kTimestamp:
        out += std::to_string(v.integer) + ' ' + std::to_string(v.time);
        break;
      default:  // integers, dates, times, booleans
        out += std::to_string(v.integer);
    }
    out += '\n';
  }
  return out;
}

TEST(WorkloadTest, HotRowUpdatesFindTheRowAsTheCommitBeforeLeftIt) {
  // Threads, hot rows, seed.
  for (const auto& [threads, hotRows, seed] : {std::tuple{4, 2, 1}, std::tuple{8, 3, 2}}) {
    SCOPED_TRACE(std::to_string(threads) + " threads");
    TempDir dir;
    {
      Database replica(dir / "replica.fdb", true);
      Workload::createSchema(replica);
    }
    writeFile(dir / "plugin.conf", "OutputDirectory = " + dir.path() + "logs\n");
    CaptureOptions o;
    o.database = dir / "source.fdb";
    o.pluginLibrary = FBCDC_PLUGIN_PATH;
    o.configFile = dir / "plugin.conf";
    o.outputDirectory = dir / "logs";
    o.seed = seed;
    o.threads = threads;
    o.transactions = 160;
    o.maxBlob = 64 << 10;
    o.hotRows = hotRows;
    const CaptureSummary summary = CaptureDriver(o).run();
    EXPECT_EQ(0u, summary.conflicts) << "hot rows are locked in one order";
    // Per hot row, its inserted state and each update's new state, less each update's old state:
    // in a chain of updates only the last state remains, once. An old image read before the last
    // commit's change shows as a state taken twice.
    std::map<std::int64_t, std::map<std::string, int>> states;
    int updates = 0;
    for (const LogFile& log : LogDirectory::list(dir / "logs")) {
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
        EXPECT_GE(count, 0) << "hot row " << id << ": an old image that no commit left:\n"
                            << values;
        left += count;
      }
      EXPECT_EQ(1, left) << "hot row " << id;
    }
    // Whatever order the logs were published in, the replica ends equal to the source.
    const ReplicaApplier::Summary applied =
        applyDirectory(dir / "replica.fdb", dir / "logs", ReplicaApplier::Conflicts::kError);
    EXPECT_EQ(summary.rows, applied.rows);
    EXPECT_EQ("", differenceBetween(dir / "source.fdb", dir / "replica.fdb"));
  }
}

}  // namespace
