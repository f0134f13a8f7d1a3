#include "LogFollower.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "LogDirectory.h"

namespace {

std::atomic<bool> stopFlag{false};
// Written by requestStop so that a follower waiting in poll wakes up.
int stopPipe[2] = {-1, -1};
// Where SIGINT and SIGTERM arrive once stopOnSignals has blocked them; -1 before.
int signalFd = -1;

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// Takes a pending stop signal, if one arrived. After the first, the signals are unblocked in this
// thread again: a second one ends the process at once, as a user pressing Ctrl-C twice expects.
bool takeSignal() {
  if (signalFd < 0) return false;
  signalfd_siginfo info;
  if (::read(signalFd, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return false;
  const sigset_t set = stopSignals();
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  return true;
}

void ensureStopPipe() {
  static const bool made = [] {
    if (::pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) != 0)
      throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(errno));
    return true;
  }();
  (void)made;
}

}  // namespace

LogFollower::LogFollower(std::string directory, LogRange range)
    : directory_(LogDirectory::withSlash(directory)), range_(std::move(range)) {
  ensureStopPipe();
}

LogFollower::~LogFollower() {
  if (inotify_ >= 0) ::close(inotify_);
}

void LogFollower::requestStop() {
  stopFlag.store(true);
  if (stopPipe[1] >= 0) {
    const char byte = 1;
    (void)!::write(stopPipe[1], &byte, 1);
  }
}

bool LogFollower::stopRequested() {
  if (!stopFlag.load() && takeSignal()) stopFlag.store(true);
  return stopFlag.load();
}

void LogFollower::clearStop() {
  stopFlag.store(false);
  char drain[64];
  while (stopPipe[0] >= 0 && ::read(stopPipe[0], drain, sizeof drain) > 0) {
  }
}

void LogFollower::stopOnSignals() {
  if (signalFd >= 0) return;
  const sigset_t set = stopSignals();
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signalFd = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalFd < 0)
    throw std::runtime_error(std::string("cannot take signals: ") + std::strerror(errno));
}

void LogFollower::enqueue(std::vector<LogFile> logs, const FollowPosition& position) {
  std::sort(logs.begin(), logs.end());
  for (LogFile& log : logs) {
    if (position.isDone(log) || !range_.contains(log)) continue;
    const bool queued = std::any_of(queue_.begin(), queue_.end(),
                                    [&](const LogFile& q) { return q.name == log.name; });
    if (!queued) queue_.push_back(std::move(log));
  }
}

void LogFollower::rescan(const FollowPosition& position) {
  enqueue(LogDirectory::list(directory_), position);
}

void LogFollower::wait(const FollowPosition& position) {
  pollfd fds[3] = {{inotify_, POLLIN, 0}, {stopPipe[0], POLLIN, 0}, {signalFd, POLLIN, 0}};
  const int ready = ::poll(fds, 3, kRescanSeconds * 1000);
  if (ready < 0 && errno != EINTR)
    throw std::runtime_error(std::string("cannot wait for new logs: ") + std::strerror(errno));
  if (ready <= 0) {
    rescan(position);
    return;
  }
  if (!(fds[0].revents & POLLIN)) return;
  alignas(inotify_event) char buffer[16384];
  bool overflow = false;
  for (;;) {
    const ssize_t n = ::read(inotify_, buffer, sizeof buffer);
    if (n <= 0) break;
    for (char* p = buffer; p < buffer + n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(p);
      p += sizeof(inotify_event) + event->len;
      if (event->mask & IN_Q_OVERFLOW) overflow = true;
      if (event->len == 0) continue;
      // Reports come in the order of the renames; each is queued as it comes.
      LogFile log;
      if (LogFile::examine(directory_ + event->name, log) && log.parsed.published)
        enqueue({log}, position);
    }
  }
  if (overflow) rescan(position);
}

void LogFollower::run(FollowPosition& position, const Handler& handle, const Committed& committed,
                      bool once) {
  if (!once && inotify_ < 0) {
    // Watching starts before the first scan, so that nothing published in between is missed.
    inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_ < 0 || ::inotify_add_watch(inotify_, directory_.c_str(),
                                            IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR) < 0)
      throw std::runtime_error("cannot watch directory " + directory_ + ": " +
                               std::strerror(errno));
  }
  rescan(position);
  for (;;) {
    while (!queue_.empty()) {
      if (stopRequested()) return;
      LogFile log = queue_.front();
      queue_.erase(queue_.begin());
      if (range_.endsBefore(log)) return;
      // A log may have gone since it was queued, or been handled under a report and a rescan.
      if (position.isDone(log) || !LogFile::examine(log.path, log)) continue;
      handle(log);
      position.advance(log);
      committed(position);
    }
    if (once || stopRequested()) return;
    wait(position);
  }
}
