#include "LogFollower.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "LogDirectory.h"
#include "PruneMark.h"

namespace {

std::atomic<bool> stopFlag{false};
// Written by requestStop so that a follower waiting in poll wakes up.
int stopPipe[2] = {-1, -1};
sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// Waits for the stop signals, which every other thread blocks: the first requests a stop, the
// next ends the process with the signal's default action, as a user pressing Ctrl-C twice expects
// (also when the first cannot be acted on, say with the output blocked).
void* takeSignals(void*) {
  const sigset_t set = stopSignals();
  int signal = 0;
  while (::sigwait(&set, &signal) != 0) {
  }
  LogFollower::requestStop();
  while (::sigwait(&set, &signal) != 0) {
  }
  ::signal(signal, SIG_DFL);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  ::raise(signal);
  return nullptr;
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

bool LogFollower::stopRequested() { return stopFlag.load(); }

void LogFollower::stopOnSignals() {
  static bool started = false;
  if (started) return;
  ensureStopPipe();
  const sigset_t set = stopSignals();
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  pthread_t thread;
  if (const int error = ::pthread_create(&thread, nullptr, takeSignals, nullptr))
    throw std::runtime_error(std::string("cannot start a thread: ") + std::strerror(error));
  ::pthread_detach(thread);
  started = true;
}

void LogFollower::enqueue(std::vector<LogFile> logs, const FollowPosition& position) {
  std::sort(logs.begin(), logs.end());
  for (LogFile& log : logs) {
    if (position.isDone(log) || !range_.contains(log)) continue;
    if (queued_.insert(log.name).second) {
      queue_.push_back(std::move(log));
    } else if (!log.fromName) {
      // Its rename's report, after a scan found it: the report's time is the publication's. Rare
      // (a rename during a scan), so the search is linear.
      for (LogFile& q : queue_)
        if (q.name == log.name) q = std::move(log);
    }
  }
}

void LogFollower::order(std::deque<LogFile>& queue) {
  std::stable_sort(queue.begin(), queue.end(), [](const LogFile& a, const LogFile& b) {
    return a.publishedAt < b.publishedAt;
  });
}

void LogFollower::rescan(const FollowPosition& position) {
  // What was renamed in during the scan is reported, and takes its place among what was found;
  // reports lost to an overflow mean another scan. A log named a whole window before the position
  // is done whatever its file says, and is passed over before it is looked at.
  const auto done = [&position](const LogName& name) { return position.doneByName(name); };
  do {
    enqueue(LogDirectory::list(directory_, LogDirectory::Which::kPublished, true, done), position);
  } while (inotify_ >= 0 && readReports(position));
  order(queue_);
}

void LogFollower::wait(const FollowPosition& position) {
  pollfd fds[2] = {{inotify_, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
  const int ready = ::poll(fds, 2, kRescanSeconds * 1000);
  if (ready < 0 && errno != EINTR)
    throw std::runtime_error(std::string("cannot wait for new logs: ") + std::strerror(errno));
  if (ready <= 0) {
    rescan(position);
    return;
  }
  if ((fds[0].revents & POLLIN) && readReports(position)) rescan(position);
}

bool LogFollower::readReports(const FollowPosition& position) {
  alignas(inotify_event) char buffer[16384];
  bool overflow = false;
  for (;;) {
    const ssize_t n = ::read(inotify_, buffer, sizeof buffer);
    if (n <= 0) break;
    for (char* p = buffer; p < buffer + n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(p);
      p += sizeof(inotify_event) + event->len;
      if (event->mask & IN_Q_OVERFLOW) overflow = true;
      // Nothing will ever be published where the directory was watched: waiting on would hang.
      if (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED))
        throw std::runtime_error("the directory " + directory_ + " was removed or moved away");
      if (event->len == 0) continue;
      // Reports come in the order of the renames; each is queued as it comes.
      LogFile log;
      // A log reported by its rename was published just now, however long after its name was
      // formed: its status-change time is the publication's.
      if (LogFile::examine(directory_ + event->name, log) && log.parsed.published) {
        log.publishedAt = log.changed;
        log.fromName = false;
        enqueue({log}, position);
      }
    }
  }
  return overflow;
}

void LogFollower::run(FollowPosition& position, const Handler& handle, const Committed& committed,
                      bool once) {
  if (!once && inotify_ < 0) {
    // Watching starts before the first scan, so that nothing published in between is missed.
    inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_ < 0 || ::inotify_add_watch(inotify_, directory_.c_str(),
                                            IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE_SELF |
                                                IN_MOVE_SELF | IN_ONLYDIR) < 0)
      throw std::runtime_error("cannot watch directory " + directory_ + ": " +
                               std::strerror(errno));
  }
  // Logs pruned that this position had not taken stop it before anything is handed over.
  PruneMark::check(directory_, position);
  rescan(position);
  for (;;) {
    while (!queue_.empty()) {
      if (stopRequested()) return;
      LogFile log = std::move(queue_.front());
      queue_.pop_front();
      queued_.erase(log.name);
      if (range_.endsBefore(log)) return;
      // A log may have gone since it was queued, or been handled under a report and a rescan.
      // It keeps the time it was queued with: a report's is the finer one.
      LogFile still;
      if (position.isDone(log)) continue;
      if (!LogFile::examine(log.path, still)) {
        // Gone before it was taken: pruned, it must not be passed over in silence.
        if (PruneMark(directory_).covers(log))
          throw std::runtime_error("log " + log.name + " was pruned before it was taken");
        continue;
      }
      handle(log);
      position.advance(log);
      committed(position);
    }
    if (once || stopRequested()) return;
    // Once no log still to come can be in the range, what is there is taken, and that is all. A
    // rename may come late after its name was formed: the same window to spare.
    if (range_.closedAt(std::time(nullptr) - LogFile::kPublishWindow / 1000000000)) {
      rescan(position);
      if (queue_.empty()) return;
      continue;
    }
    wait(position);
  }
}
