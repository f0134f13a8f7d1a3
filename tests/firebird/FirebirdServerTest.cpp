// The test's Firebird server is a real one: it answers on its loopback port only with SYSDBA's
// password, keeps its databases where the test said, and is gone once stopped.
#include <gtest/gtest.h>

#include "FirebirdServer.h"
#include "TestFiles.h"

TEST(FirebirdServerTest, ServesOnLoopbackWithItsOwnSecurityDatabase) {
  TempDir dir;
  FirebirdServer server(dir.path());
  ASSERT_TRUE(server.ready()) << server.why();
  server.createDatabase(dir / "a.fdb", "CREATE TABLE T (ID INTEGER);");
  EXPECT_TRUE(fileExists(dir / "a.fdb"));
  const std::string connect = "CONNECT '" + server.database(dir / "a.fdb") + "';\n";
  struct Case {
    const char* name;
    std::string user, password;
    int status;
    const char* output;
  } cases[] = {
      {"SYSDBA with the test's password", "SYSDBA", server.password(), 0, "RDB$RELATION_ID"},
      {"SYSDBA with another password", "SYSDBA", "masterkey", 1,
       "Your user name and password are not defined"},
      {"a user the server does not know", "NOBODY", "x", 1,
       "Your user name and password are not defined"},
  };
  for (const Case& c : cases) {
    const FirebirdServer::Result r =
        server.isql(connect + "SELECT RDB$RELATION_ID FROM RDB$DATABASE;\n", c.user, c.password);
    EXPECT_EQ(r.status, c.status) << c.name << ": " << r.output;
    EXPECT_NE(r.output.find(c.output), std::string::npos) << c.name << ": " << r.output;
  }
  server.stop();
  const FirebirdServer::Result after = server.isql(connect);
  EXPECT_NE(after.status, 0) << after.output;
  EXPECT_NE(after.output.find("Unable to complete network request"), std::string::npos)
      << after.output;
}
