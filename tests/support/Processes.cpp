#include "Processes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstring>

extern char** environ;

pid_t spawn(std::vector<std::string> args, const std::string& out, const std::string& err) {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  const int error = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) ADD_FAILURE() << "cannot start " << args[0] << ": " << std::strerror(error);
  return error == 0 ? pid : -1;
}

namespace {

int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

}  // namespace

int waitFor(pid_t pid) {
  int status = 0;
  if (pid < 0 || ::waitpid(pid, &status, 0) != pid) return -1;
  return exitStatus(status);
}

int stop(pid_t pid, int signal) {
  if (pid <= 0) return -1;
  ::kill(pid, signal);
  // A process that does not end within a minute of the signal hangs: the test fails, and the
  // process is killed rather than left to hold the test up.
  for (int waited = 0; waited < 6000; ++waited) {
    int status = 0;
    const pid_t ended = ::waitpid(pid, &status, WNOHANG);
    if (ended == pid) return exitStatus(status);
    if (ended < 0) return -1;
    ::usleep(10000);
  }
  ADD_FAILURE() << "process " << pid << " still runs a minute after signal " << signal;
  ::kill(pid, SIGKILL);
  waitFor(pid);
  return -2;
}

int loopbackPort() {
  int port = 0;
  const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    port = ntohs(address.sin_port);
  ::close(probe);
  return port;
}

bool loopbackAccepts(int port) {
  const int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  const bool connected = ::connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(s);
  return connected;
}
