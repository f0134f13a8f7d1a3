// Who fbcdc attaches as: --user, --role and --password-file, ISC_USER and ISC_PASSWORD, through a
// real Firebird server that checks them, and the embedded engine with no user at all. A refused
// login or a missing grant is one line naming the database and the server's reason, exit status 1;
// no command takes a secret as an argument.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "Database.h"
#include "FbcdcRuns.h"
#include "FirebirdServer.h"

// The lines of golden/logins.txt, run without the test's own ISC_USER and ISC_PASSWORD so that its
// environment plays no part: $DB is a database on a real server, $PW its SYSDBA's password, $/ the
// test's directory with password files of several modes and a.fdb, a database of the embedded
// engine. Through the server, every way of naming the login reaches the database (equal, exit 0)
// or ends in the one line expected (exit 1): a first line ended by LF, by CRLF (a later line
// ignored) or by the file's end; the options over the environment; a user and role in lower case,
// without the role the grant missing. The embedded engine attaches as the operating system's user
// when none is named, and checks grants for one named by --user or ISC_USER. No command takes a
// password as an argument, nor echoes one given: every option that could carry one is unknown (the
// commands' help, and docs/commands.md through the docs test, show the files they take instead).
TEST(CredentialsTest, Logins) {
  TempDir dir;
  FirebirdServer server(dir.path());
  ASSERT_TRUE(server.ready()) << server.why();
  server.createDatabase(dir / "db.fdb",
                        "CREATE TABLE T (ID INTEGER);\n"
                        "CREATE USER READER PASSWORD 'reader-pw';\n"
                        "CREATE ROLE READONLY;\n"
                        "GRANT SELECT ON T TO ROLE READONLY;\n"
                        "GRANT READONLY TO USER READER;\n");
  Database(dir / "a.fdb", true).executeAlone("CREATE TABLE T (ID INTEGER)");
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
  ::unsetenv("ISC_USER");
  ::unsetenv("ISC_PASSWORD");
  const std::string transcript = transcriptOf(dir, linesOf("firebird/golden/logins.txt")[0].second,
                                              {{"$DB", db}, {"$PW", pw}, {"$/", dir.path()}});
  expectGolden("firebird/golden/logins.txt",
               replaceAll(replaceAll(transcript, db, "$DB"), dir.path(), "$/"));
}
