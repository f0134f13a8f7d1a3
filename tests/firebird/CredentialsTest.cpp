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

struct Outcome {
  int status;
  std::string out, err;
};

// Runs fbcdc with the environment's Firebird and Redis secrets removed and then set as given
// ("NAME=VALUE"), so that the test's own environment plays no part.
Outcome fbcdc(const TempDir& dir, const std::vector<std::string>& environment,
              const std::vector<std::string>& args) {
  std::vector<std::string> all = {
      "/usr/bin/env", "-u", "ISC_USER", "-u", "ISC_PASSWORD", "-u", "FBCDC_REDIS_PASSWORD"};
  all.insert(all.end(), environment.begin(), environment.end());
  all.push_back(FBCDC_CLI_PATH);
  all.insert(all.end(), args.begin(), args.end());
  const int status = waitFor(spawn(all, dir / "out.txt", dir / "err.txt"));
  return {status, readText(dir / "out.txt"), readText(dir / "err.txt")};
}

void writeSecret(const std::string& path, const std::string& text, mode_t mode) {
  writeFile(path, text);
  ::chmod(path.c_str(), mode);
}

}  // namespace

// compare attaches to one server database twice; every way of naming the login either reaches it
// (equal, exit 0) or ends in the one line expected.
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
  const std::string db = server.database(dir / "db.fdb");
  writeSecret(dir / "sysdba", server.password() + "\n", 0600);
  writeSecret(dir / "sysdba-crlf", server.password() + "\r\nsecond line\n", 0640);
  writeSecret(dir / "sysdba-bare", server.password(), 0400);
  writeSecret(dir / "reader", "reader-pw\n", 0600);
  writeSecret(dir / "wrong", "masterkey\n", 0600);
  writeSecret(dir / "shared", server.password() + "\n", 0644);
  writeSecret(dir / "group-writable", server.password() + "\n", 0660);
  writeSecret(dir / "empty", "\nsecond line\n", 0600);
  const std::string refused = "fbcdc compare: cannot open database " + db +
                              ": Your user name and password are not defined. Ask your database "
                              "administrator to set up a Firebird login.\n";
  const std::string equal = "equal: 1 tables, 0 rows\n";
  const struct {
    const char* name;
    std::vector<std::string> environment, options;
    int status;
    std::string out, err;
  } cases[] = {
      {"--user and --password-file",
       {},
       {"--user", "SYSDBA", "--password-file", dir / "sysdba"},
       0,
       equal,
       ""},
      {"a first line ended by CRLF, a later line ignored",
       {},
       {"--user", "SYSDBA", "--password-file", dir / "sysdba-crlf"},
       0,
       equal,
       ""},
      {"a file without a line end",
       {},
       {"--user", "SYSDBA", "--password-file", dir / "sysdba-bare"},
       0,
       equal,
       ""},
      {"ISC_USER and ISC_PASSWORD",
       {"ISC_USER=SYSDBA", "ISC_PASSWORD=" + server.password()},
       {},
       0,
       equal,
       ""},
      {"--user over ISC_USER",
       {"ISC_USER=NOBODY"},
       {"--user", "SYSDBA", "--password-file", dir / "sysdba"},
       0,
       equal,
       ""},
      {"--password-file over ISC_PASSWORD",
       {"ISC_USER=SYSDBA", "ISC_PASSWORD=masterkey"},
       {"--password-file", dir / "sysdba"},
       0,
       equal,
       ""},
      {"a user name in lower case",
       {},
       {"--user", "reader", "--role", "readonly", "--password-file", dir / "reader"},
       0,
       equal,
       ""},
      {"the role that holds the grant",
       {"ISC_PASSWORD=reader-pw"},
       {"--user", "READER", "--role", "READONLY"},
       0,
       equal,
       ""},
      {"no role: the grant is missing",
       {"ISC_PASSWORD=reader-pw"},
       {"--user", "READER"},
       1,
       "",
       "fbcdc compare: " + db + " and " + db + ": no permission for SELECT access to TABLE T\n"},
      {"a wrong password",
       {},
       {"--user", "SYSDBA", "--password-file", dir / "wrong"},
       1,
       "",
       refused},
      {"no user at all", {"ISC_PASSWORD=" + server.password()}, {}, 1, "", refused},
      {"no password at all", {"ISC_USER=SYSDBA"}, {}, 1, "", refused},
      {"a password file others may read",
       {},
       {"--user", "SYSDBA", "--password-file", dir / "shared"},
       1,
       "",
       "fbcdc compare: password file " + dir / "shared" +
           ": mode 0644 lets other users read or change it; chmod 600 (or 640 for a group) it\n"},
      {"a password file its group may change",
       {},
       {"--user", "SYSDBA", "--password-file", dir / "group-writable"},
       1,
       "",
       "fbcdc compare: password file " + dir / "group-writable" +
           ": mode 0660 lets other users read or change it; chmod 600 (or 640 for a group) it\n"},
      {"a password file whose first line is empty",
       {},
       {"--user", "SYSDBA", "--password-file", dir / "empty"},
       1,
       "",
       "fbcdc compare: password file " + dir / "empty" + ": its first line is empty\n"},
      {"a password file that is not there",
       {},
       {"--user", "SYSDBA", "--password-file", dir / "missing"},
       1,
       "",
       "fbcdc compare: password file " + dir / "missing" + ": No such file or directory\n"},
      {"a directory for a password file",
       {},
       {"--user", "SYSDBA", "--password-file", dir.path()},
       1,
       "",
       "fbcdc compare: password file " + dir.path() + ": not a regular file\n"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"compare", db, db};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const Outcome r = fbcdc(dir, c.environment, args);
    EXPECT_EQ(c.status, r.status) << c.name << ": " << r.err;
    EXPECT_EQ(c.out, r.out) << c.name;
    EXPECT_EQ(c.err, r.err) << c.name;
  }
}

// The embedded engine needs no user: with none it attaches as the operating system's user, and a
// user that is named is the one it checks grants for.
TEST(CredentialsTest, EmbeddedEngineWithAndWithoutAUser) {
  TempDir dir;
  {
    Database db(dir / "a.fdb", true);
    db.executeAlone("CREATE TABLE T (ID INTEGER)");
  }
  const struct {
    const char* name;
    std::vector<std::string> environment, options;
    int status;
    std::string err;
  } cases[] = {
      {"no user, no password", {}, {}, 0, ""},
      {"a named user without the grant",
       {},
       {"--user", "NOBODY"},
       1,
       "fbcdc compare: " + dir / "a.fdb" + " and " + dir / "a.fdb" +
           ": no permission for SELECT access to TABLE T\n"},
      {"ISC_USER names the same user",
       {"ISC_USER=NOBODY"},
       {},
       1,
       "fbcdc compare: " + dir / "a.fdb" + " and " + dir / "a.fdb" +
           ": no permission for SELECT access to TABLE T\n"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"compare", dir / "a.fdb", dir / "a.fdb"};
    args.insert(args.end(), c.options.begin(), c.options.end());
    const Outcome r = fbcdc(dir, c.environment, args);
    EXPECT_EQ(c.status, r.status) << c.name << ": " << r.err;
    EXPECT_EQ(c.err, r.err) << c.name;
  }
}

// No command takes a password as an argument: every option that could carry one is unknown, and
// the commands that attach or log in take a file instead.
TEST(CredentialsTest, NoSecretAsAnArgument) {
  TempDir dir;
  const std::vector<std::string> commands = {"dump",    "verify", "follow", "capture", "apply",
                                             "compare", "status", "prune",  "demo"};
  for (const std::string& command : commands) {
    for (const char* option : {"--password", "--redis-password", "--sasl-password"}) {
      const Outcome r = fbcdc(dir, {}, {command, option, "secret"});
      EXPECT_EQ(2, r.status) << command << " " << option;
      EXPECT_EQ(std::string::npos, r.err.find("secret"))
          << command << " " << option << ": " << r.err;
    }
    const Outcome help = fbcdc(dir, {}, {command, "--help"});
    EXPECT_EQ(std::string::npos, help.out.find("--password "))
        << command << " shows a password option";
  }
  for (const char* command : {"follow", "capture", "apply", "compare", "status", "prune"}) {
    const Outcome help = fbcdc(dir, {}, {command, "--help"});
    for (const char* option : {"--user", "--role", "--password-file"})
      EXPECT_NE(std::string::npos, help.out.find(option)) << command << " lacks " << option;
  }
  for (const char* command : {"follow", "status", "prune"}) {
    const Outcome help = fbcdc(dir, {}, {command, "--help"});
    for (const char* option : {"--redis-user", "--redis-password-file", "--redis-db"})
      EXPECT_NE(std::string::npos, help.out.find(option)) << command << " lacks " << option;
  }
}
