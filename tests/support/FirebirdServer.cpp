#include "FirebirdServer.h"

#include <fcntl.h>
#include <firebird/Interface.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "Processes.h"
#include "TestFiles.h"

extern char** environ;

namespace fs = std::filesystem;

namespace {

// The variables through which Firebird's tools find their configuration and credentials; a
// child gets the values given here instead of the test's own.
const char* const kFirebirdVariables[] = {
    "FIREBIRD=", "FIREBIRD_LOCK=", "FIREBIRD_TMP=", "ISC_USER=", "ISC_PASSWORD=", "ISC_ROLE="};

// Starts args[0] (a path) with variables added to the test's environment, stdout and stderr to
// the file output. The child dies with the test process, so that a crashed test leaves no server.
pid_t launch(const std::vector<std::string>& args, const std::vector<std::string>& variables,
             const std::string& output) {
  std::vector<char*> argv, envp;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  for (char** e = environ; *e; ++e) {
    const auto ours = [e](const char* name) {
      return std::strncmp(*e, name, std::strlen(name)) == 0;
    };
    if (std::none_of(std::begin(kFirebirdVariables), std::end(kFirebirdVariables), ours))
      envp.push_back(*e);
  }
  for (const std::string& v : variables) envp.push_back(const_cast<char*>(v.c_str()));
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  // Only async-signal-safe calls between fork and exec: the test process has threads.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(127);
  const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd >= 0) {
    ::dup2(fd, 1);
    ::dup2(fd, 2);
    ::close(fd);
  }
  ::execve(argv[0], argv.data(), envp.data());
  ::_exit(127);
}

std::string sqlString(const std::string& text) {
  std::string q = "'";
  for (const char c : text) q += c == '\'' ? std::string("''") : std::string(1, c);
  return q + "'";
}

}  // namespace

FirebirdServer::FirebirdServer(const std::string& directory, const std::string& password)
    : directory_(directory.back() == '/' ? directory : directory + "/"), password_(password) {
  const std::string root = directory_ + "firebird/";
  if (::access(kBinary, X_OK) != 0) {
    why_ = std::string(kBinary) + " is not installed (Debian package firebird3.0-server)";
    return;
  }
  // Firebird reads its configuration files, messages and character sets from its root directory
  // (the FIREBIRD variable): a root of links to the installed one, with a configuration of its own.
  Firebird::IConfigManager* config = Firebird::fb_get_master_interface()->getConfigManager();
  const fs::path installed = config->getRootDirectory();
  std::error_code error;
  fs::create_directories(root + "lock", error);
  fs::create_directories(root + "tmp", error);
  for (const fs::directory_entry& e : fs::directory_iterator(installed, error)) {
    const std::string name = e.path().filename();
    if (name == "firebird.conf" || name == "databases.conf") continue;
    // The character sets' module is loaded only from inside the root, its real path included: a
    // link out of it leaves every character set but the built-in ones "not installed".
    if (name == "intl")
      fs::copy(e.path(), root + name, fs::copy_options::recursive, error);
    else
      fs::create_symlink(e.path(), root + name, error);
    if (error) break;
  }
  if (error) {
    why_ = "cannot make the root directory " + root + " from " + installed.string() + ": " +
           error.message();
    return;
  }
  writeFile(root + "databases.conf", "security.db = " + root + "security3.fdb\n");
  port_ = loopbackPort();
  if (port_ == 0) {
    why_ = "no free loopback port";
    return;
  }
  writeFile(root + "firebird.conf", "RemoteServicePort = " + std::to_string(port_) +
                                        "\nRemoteBindAddress = 127.0.0.1\nSecurityDatabase = " +
                                        root + "security3.fdb\nUdfAccess = None\n");
  const std::vector<std::string> variables = {"FIREBIRD=" + root, "FIREBIRD_LOCK=" + root + "lock",
                                              "FIREBIRD_TMP=" + root + "tmp"};
  // The security database is made afresh through the embedded engine of this root, and SYSDBA
  // given the test's password there before the server reads it.
  writeFile(root + "security.sql", "CREATE DATABASE " + sqlString(root + "security3.fdb") +
                                       ";\nCREATE USER SYSDBA PASSWORD " + sqlString(password_) +
                                       " USING PLUGIN Srp;\nCOMMIT;\n");
  const pid_t setup =
      launch({"/usr/bin/isql-fb", "-q", "-bail", "-user", "SYSDBA", "-i", root + "security.sql"},
             variables, root + "security.out");
  if (waitFor(setup) != 0) {
    why_ = "cannot make the security database: " + readText(root + "security.out");
    return;
  }
  pid_ = launch({kBinary}, variables, directory_ + "firebird.err");
  for (int i = 0; i < 400 && pid_ > 0; ++i) {
    if (loopbackAccepts(port_)) return;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      why_ = std::string(kBinary) + " ended at start (status " + std::to_string(status) +
             "): " + readText(directory_ + "firebird.err");
      return;
    }
    ::usleep(50000);
  }
  why_ = std::string(kBinary) + " did not listen on 127.0.0.1:" + std::to_string(port_) +
         " within 20 seconds: " + readText(directory_ + "firebird.err");
}

FirebirdServer::~FirebirdServer() {
  if (pid_ <= 0) return;
  // The server notes SIGTERM at once but acts on it only when its listener wakes (a connection,
  // or a minute's timeout): a connection wakes it. Now and then its shutdown still waits on
  // something of its own; after five seconds it is killed, which loses nothing committed (the
  // databases write through).
  ::kill(pid_, SIGTERM);
  for (int waited = 0; waited < 50; ++waited) {
    const pid_t ended = ::waitpid(pid_, nullptr, WNOHANG);
    if (ended == pid_ || ended < 0) return;
    loopbackAccepts(port_);
    ::usleep(100000);
  }
  ::kill(pid_, SIGKILL);
  waitFor(pid_);
}

std::string FirebirdServer::database(const std::string& path) const {
  return "127.0.0.1/" + std::to_string(port_) + ":" + path;
}

FirebirdServer::Result FirebirdServer::isql(const std::string& script) const {
  static int scripts = 0;
  const std::string name = directory_ + "isql-" + std::to_string(++scripts);
  writeFile(name + ".sql", script);
  // The test's own client configuration: isql-fb reaches the server as any client would.
  const pid_t pid = launch({"/usr/bin/isql-fb", "-q", "-bail", "-i", name + ".sql"},
                           {"ISC_USER=SYSDBA", "ISC_PASSWORD=" + password_}, name + ".out");
  const int status = waitFor(pid);
  return {status, readText(name + ".out")};
}

void FirebirdServer::createDatabase(const std::string& path, const std::string& script) const {
  const Result r = isql("CREATE DATABASE " + sqlString(database(path)) + " PAGE_SIZE 8192;\n" +
                        script + "\nCOMMIT;\n");
  EXPECT_EQ(r.status, 0) << r.output;
}
