// Who fbcdc attaches as: --user, --role and --password-file, ISC_USER and ISC_PASSWORD, through a
// real Firebird server that checks them, and the embedded engine with no user at all. A refused
// login or a missing grant is one line naming the database and the server's reason, exit status 1;
// no command takes a secret as an argument.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "Database.h"
#include "FirebirdServer.h"
#include "Processes.h"
#include "TestFiles.h"

namespace {

// Runs fbcdc compare DB DB with the environment's Firebird and Redis secrets removed and then set
// as given ("NAME=VALUE"), so that the test's own environment plays no part; its stdout and stderr.
std::string compare(const TempDir& dir, const std::string& db,
                    const std::vector<std::string>& environment,
                    const std::vector<std::string>& options, int* status = nullptr) {
  std::vector<std::string> all = {
      "/usr/bin/env", "-u", "ISC_USER", "-u", "ISC_PASSWORD", "-u", "FBCDC_REDIS_PASSWORD"};
  all.insert(all.end(), environment.begin(), environment.end());
  all.insert(all.end(), {FBCDC_CLI_PATH, "compare", db, db});
  all.insert(all.end(), options.begin(), options.end());
  const int exit = waitFor(spawn(all, dir / "out.txt", dir / "err.txt"));
  if (status) *status = exit;
  return readText(dir / "out.txt") + readText(dir / "err.txt");
}

}  // namespace

// compare attaches to one server database twice; every way of naming the login either reaches it
// (equal, exit 0) or ends in the one line expected (exit 1).
TEST(CredentialsTest, LoginsThroughARealServer) {
  TempDir dir;
  FirebirdServer server(dir.path());
  ASSERT_TRUE(server.ready()) << server.why();
  server.createDatabase(dir / "db.fdb",
                        "CREATE TABLE T (ID INTEGER);\n"
                        "CREATE USER READER PASSWORD 'reader-pw';\n"
                        "CREATE ROLE READONLY;\n"
                        "GRANT SELECT ON T TO ROLE READONLY;\n"
                        "GRANT READONLY TO USER READER;\n");
  const std::string db = server.database(dir / "db.fdb"), pw = server.password();
  const struct {
    const char* file;
    std::string text;
    mode_t mode;
  } files[] = {{"sysdba", pw + "\n", 0600},         {"sysdba-crlf", pw + "\r\nline 2\n", 0640},
               {"sysdba-bare", pw, 0400},           {"reader", "reader-pw\n", 0600},
               {"wrong", "masterkey\n", 0600},      {"shared", pw + "\n", 0644},
               {"group-writable", pw + "\n", 0660}, {"empty", "\nline 2\n", 0600}};
  for (const auto& f : files) {
    writeFile(dir / f.file, f.text);
    ::chmod((dir / f.file).c_str(), f.mode);
  }
  const std::string refused = "fbcdc compare: cannot open database " + db +
                              ": Your user name and password are not defined. Ask your database "
                              "administrator to set up a Firebird login.\n";
  const auto file = [&](const char* name) {
    return "fbcdc compare: password file " + (name[0] ? dir / name : dir.path()) + ": ";
  };
  const std::string open =
      "lets other users read or change it; chmod 600 (or 640 for a group) it\n";
  const std::string sysdba = "--user=SYSDBA";
  const struct {
    std::vector<std::string> environment, options;
    std::string output;  // stdout and stderr; "" for equal, exit 0
  } cases[] = {
      // A first line ended by LF, by CRLF (a later line ignored), or by the file's end.
      {{}, {sysdba, "--password-file", dir / "sysdba"}, ""},
      {{}, {sysdba, "--password-file", dir / "sysdba-crlf"}, ""},
      {{}, {sysdba, "--password-file", dir / "sysdba-bare"}, ""},
      {{"ISC_USER=SYSDBA", "ISC_PASSWORD=" + pw}, {}, ""},
      // The options over the environment.
      {{"ISC_USER=NOBODY"}, {sysdba, "--password-file", dir / "sysdba"}, ""},
      {{"ISC_USER=SYSDBA", "ISC_PASSWORD=masterkey"}, {"--password-file", dir / "sysdba"}, ""},
      // A user and role in lower case; without the role the grant is missing.
      {{}, {"--user", "reader", "--role", "readonly", "--password-file", dir / "reader"}, ""},
      {{"ISC_PASSWORD=reader-pw"},
       {"--user", "READER"},
       "fbcdc compare: " + db + " and " + db + ": no permission for SELECT access to TABLE T\n"},
      {{}, {sysdba, "--password-file", dir / "wrong"}, refused},
      {{"ISC_PASSWORD=" + pw}, {}, refused},
      {{"ISC_USER=SYSDBA"}, {}, refused},
      {{}, {sysdba, "--password-file", dir / "shared"}, file("shared") + "mode 0644 " + open},
      {{},
       {sysdba, "--password-file", dir / "group-writable"},
       file("group-writable") + "mode 0660 " + open},
      {{}, {sysdba, "--password-file", dir / "empty"}, file("empty") + "its first line is empty\n"},
      {{},
       {sysdba, "--password-file", dir / "missing"},
       file("missing") + "No such file or directory\n"},
      {{}, {sysdba, "--password-file", dir.path()}, file("") + "not a regular file\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.environment) + testing::PrintToString(c.options));
    int status = -1;
    const std::string output = compare(dir, db, c.environment, c.options, &status);
    EXPECT_EQ(c.output.empty() ? "equal: 1 tables, 0 rows\n" : c.output, output);
    EXPECT_EQ(c.output.empty() ? 0 : 1, status);
  }
}

// The embedded engine needs no user: with none it attaches as the operating system's user, and a
// user that is named, by --user or ISC_USER, is the one it checks grants for.
TEST(CredentialsTest, EmbeddedEngineWithAndWithoutAUser) {
  TempDir dir;
  Database(dir / "a.fdb", true).executeAlone("CREATE TABLE T (ID INTEGER)");
  const std::string denied = "fbcdc compare: " + dir / "a.fdb" + " and " + dir / "a.fdb" +
                             ": no permission for SELECT access to TABLE T\n";
  EXPECT_EQ("equal: 1 tables, 0 rows\n", compare(dir, dir / "a.fdb", {}, {}));
  EXPECT_EQ(denied, compare(dir, dir / "a.fdb", {}, {"--user", "NOBODY"}));
  EXPECT_EQ(denied, compare(dir, dir / "a.fdb", {"ISC_USER=NOBODY"}, {}));
}

// No command takes a password as an argument, nor echoes one given: every option that could carry
// one is unknown (the commands' help, and docs/commands.md through the docs test, show the files
// they take instead).
TEST(CredentialsTest, NoSecretAsAnArgument) {
  TempDir dir;
  for (const char* command :
       {"dump", "verify", "follow", "capture", "apply", "compare", "status", "prune", "demo"}) {
    for (const char* option : {"--password", "--redis-password", "--sasl-password"}) {
      const int exit = waitFor(
          spawn({FBCDC_CLI_PATH, command, option, "secret"}, dir / "out.txt", dir / "err.txt"));
      EXPECT_EQ(2, exit) << command << " " << option;
      EXPECT_EQ(std::string::npos, readText(dir / "err.txt").find("secret")) << command << option;
    }
  }
}
