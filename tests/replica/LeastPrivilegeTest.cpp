// The applier as a dedicated user of a real Firebird server, holding only the grants that
// docs/security.md lists: the replicated table's rows, the position table that the DBA made, and
// EXECUTE on the one procedure that statement records run. Logs within those grants apply; a
// statement record outside them stops the applier with the server's reason, and the replica stays
// at the log before it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "FirebirdServer.h"
#include "LiteralRow.h"
#include "PluginFixture.h"
#include "Processes.h"

namespace {

// What the DBA runs on the replica (the grants of docs/security.md).
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

class LeastPrivilegeTest : public PluginFixture {
 protected:
  // Publishes one log of transaction number holding body's changes.
  template <typename Body>
  void publish(std::uint64_t number, Body body) {
    ReplTransaction* t = begin(number);
    body(t);
    ASSERT_EQ(0, t->commit(status));
    t->dispose();
    ::usleep(20000);  // the next log falls into a later tick of the file system's clock
  }

  void publishStatement(std::uint64_t number, const char* sql) {
    publish(number, [&](ReplTransaction* t) { ASSERT_EQ(0, t->executeSql(status, sql, 1)); });
  }

  // The replica's rows of T and its position's count of logs, read as SYSDBA, spaces collapsed.
  std::string state(const FirebirdServer& server) {
    const FirebirdServer::Result r =
        server.isql("CONNECT '" + server.database(dir / "replica.fdb") +
                    "';\nSET HEADING OFF;\nSELECT 'T', ID, V FROM T ORDER BY ID;\n"
                    "SELECT 'APPLIED', LOGS_APPLIED FROM FBCDC_APPLIED;\n");
    EXPECT_EQ(0, r.status) << r.output;
    return std::regex_replace(r.output, std::regex("\\s+"), " ");
  }

  // fbcdc apply to database as the replication user; its exit status and stderr.
  std::pair<int, std::string> apply(const FirebirdServer& server, const char* database) {
    const int status =
        waitFor(spawn({"/usr/bin/env", "-u", "ISC_USER", "-u", "ISC_PASSWORD", FBCDC_CLI_PATH,
                       "apply", "--database", server.database(dir / database), "--user",
                       "FBCDC_APPLY", "--password-file", dir / "apply.pw", logs},
                      dir / "out.txt", dir / "err.txt"));
    return {status, readText(dir / "err.txt")};
  }
};

}  // namespace

// Within the grants the logs apply; outside them the applier stops with the server's reason.
// Without FBCDC_APPLIED made by the DBA, the applier makes it, which a user without CREATE TABLE
// may not: it stops before any log.
TEST_F(LeastPrivilegeTest, StatementOutsideTheGrantsStopsTheApplier) {
  FirebirdServer server(dir / "server");
  ASSERT_TRUE(server.ready()) << server.why();
  server.createDatabase(dir / "replica.fdb", kReplicaSchema);
  server.createDatabase(dir / "bare.fdb",
                        "CREATE TABLE T (ID INTEGER NOT NULL PRIMARY KEY, V INTEGER);\n"
                        "GRANT SELECT, INSERT, UPDATE, DELETE ON T TO USER FBCDC_APPLY;\n");
  writeFile(dir / "apply.pw", "apply-pw\n");
  ::chmod((dir / "apply.pw").c_str(), 0600);

  // Within the grants: a row inserted, a statement on the table, the granted procedure.
  publish(1, [&](ReplTransaction* t) {
    LiteralRow row("T");
    row.addLong("ID", 2).addLong("V", 20);
    ASSERT_EQ(0, t->insertRecord(status, nullptr, nullptr, &row));
  });
  publishStatement(2, "UPDATE T SET V = V + 1 WHERE ID = 2");
  publishStatement(3, "EXECUTE PROCEDURE BUMP");
  {
    const auto [exit, err] = apply(server, "bare.fdb");
    EXPECT_EQ(1, exit);
    EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
    EXPECT_NE(
        std::string::npos,
        err.find("CREATE TABLE FBCDC_APPLIED failed: There is no privilege for this operation"))
        << err;
  }
  {
    const auto [exit, err] = apply(server, "replica.fdb");
    EXPECT_EQ(0, exit) << err;
    EXPECT_EQ("", err);
  }
  const std::string applied = " T 1 110 T 2 21 APPLIED 3 ";
  ASSERT_EQ(applied, state(server));
  const struct {
    const char* sql;
    std::string reason;
  } outside[] = {
      {"DELETE FROM SECRET", "no permission for DELETE access to TABLE SECRET"},
      {"EXECUTE PROCEDURE HIDDEN", "no permission for EXECUTE access to PROCEDURE HIDDEN"},
      {"CREATE TABLE MORE (ID INTEGER)",
       "CREATE TABLE MORE failed: There is no privilege for this operation"},
      {"GRANT DELETE ON SECRET TO USER FBCDC_APPLY",
       "GRANT failed: no DELETE privilege with grant option on table/view SECRET"},
  };
  std::uint64_t number = 10;
  for (const auto& c : outside) {
    SCOPED_TRACE(c.sql);
    // A change within the grants first, in the same log: it must not stay either.
    publish(number++, [&](ReplTransaction* t) {
      ASSERT_EQ(0, t->executeSql(status, "UPDATE T SET V = 0", 1));
      ASSERT_EQ(0, t->executeSql(status, c.sql, 1));
    });
    const std::string log = listDirectory(logs).back();
    const auto [exit, err] = apply(server, "replica.fdb");
    EXPECT_EQ(1, exit);
    EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
    EXPECT_EQ(0u,
              err.find("fbcdc apply: replica " + server.database(dir / "replica.fdb") + ": log "))
        << err;
    EXPECT_NE(std::string::npos, err.find(c.reason)) << err;
    EXPECT_EQ(applied, state(server)) << "the replica is at the log before";
    ::unlink((logs + log).c_str());
  }
}
