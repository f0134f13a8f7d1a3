// The capture driver reports exactly what the database changed: runs again on one database never
// reuse a key or a tag and leave a replica equal to the source; a statement that changed two rows
// stops the driver naming it. (Hot rows are ReplicaTest's round trips.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Processes.h"
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

}  // namespace
