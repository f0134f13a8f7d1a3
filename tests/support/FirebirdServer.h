// A real Firebird server for a test: Debian's /usr/sbin/firebird, started on a free loopback port
// with a root directory of its own (configuration, security database with a known SYSDBA
// password, lock files) in a test's directory, and stopped when the object goes, also when an
// assertion ends the test early. A database on it is named "127.0.0.1/PORT:/path".
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

class FirebirdServer {
 public:
  static constexpr const char* kBinary = "/usr/sbin/firebird";

  // Starts the server with its files in directory (which must exist); SYSDBA's password is
  // password. ready() says whether it accepts connections, why() why not.
  explicit FirebirdServer(const std::string& directory,
                          const std::string& password = "fbcdc-test-sysdba");
  ~FirebirdServer();
  FirebirdServer(const FirebirdServer&) = delete;
  FirebirdServer& operator=(const FirebirdServer&) = delete;

  bool ready() const { return why_.empty(); }
  // Why the server could not be started or did not answer; "" when it runs.
  const std::string& why() const { return why_; }
  // The connection string of the database file path on this server.
  std::string database(const std::string& path) const;
  const std::string& password() const { return password_; }

  // The output (stdout and stderr together) and exit status of isql-fb running script through
  // the server as SYSDBA, stopping at the first failing statement; the script connects, or
  // creates, the database itself.
  struct Result {
    int status;
    std::string output;
  };
  Result isql(const std::string& script) const;
  // Creates the database file path on the server as SYSDBA, then runs script in it (CONNECT is
  // done); a failure of either is a test failure.
  void createDatabase(const std::string& path, const std::string& script = "") const;

 private:
  std::string directory_;
  std::string password_;
  std::string why_;
  int port_ = 0;
  pid_t pid_ = -1;
};
