#include "LogPruner.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "LogDirectory.h"
#include "PruneMark.h"

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

int openDirectory(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) fail("cannot open directory " + path);
  return fd;
}

void syncDirectory(const std::string& path) {
  const int fd = openDirectory(path);
  const int synced = ::fsync(fd);
  ::close(fd);
  if (synced != 0) fail("cannot sync directory " + path);
}

// The publication time of a position's last logs: the first word of its stored form.
std::int64_t timeOf(const FollowPosition& position) { return std::stoll(position.serialize()); }

// Whether a position's last log is one this directory holds (under its name, or under the one the
// plugin renamed it to, which keeps the transaction's number) or one pruned from it. A position
// that names neither is likely another directory's, and its time says nothing of this one's logs.
bool knownHere(const FollowPosition& position, const std::vector<LogFile>& logs,
               const PruneMark& mark) {
  const std::string& last = position.lastName();
  for (const LogFile& log : logs)
    if (log.name == last ||
        (log.name.size() == 37 && last.size() == 37 && log.name.compare(17, 16, last, 17, 16) == 0))
      return true;
  LogFile log;
  log.name = last;
  LogName::parse(last, log.parsed);
  log.publishedAt = log.changed = timeOf(position);
  return mark.covers(log);
}

// Copies from to a temporary name beside to, syncs it and renames it to to; false when from is
// gone. On failure nothing is left under the temporary name.
bool copyInto(const std::string& from, const std::string& to) {
  const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    if (errno == ENOENT) return false;
    fail("cannot open " + from);
  }
  const std::string partial = to + ".part";
  std::string problem;
  int error = 0;
  const auto failed = [&](const std::string& what) {
    if (!problem.empty()) return;
    problem = what;
    error = errno;
  };
  // The copy keeps the log's own permissions: its rows are no more readable in the archive.
  struct stat st {};
  const mode_t mode = ::fstat(in, &st) == 0 ? (st.st_mode & 0777) : 0600;
  const int out = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (out < 0) failed("cannot create " + partial);
  char buffer[65536];
  while (problem.empty()) {
    const ssize_t n = ::read(in, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) failed("cannot read " + from);
    if (n <= 0) break;
    for (ssize_t done = 0; done < n && problem.empty();) {
      const ssize_t w = ::write(out, buffer + done, static_cast<std::size_t>(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) failed("cannot write " + partial);
      done += w > 0 ? w : 0;
    }
  }
  ::close(in);
  if (out >= 0) {
    if (problem.empty() && ::fsync(out) != 0) failed("cannot sync " + partial);
    if (::close(out) != 0) failed("cannot close " + partial);
    if (problem.empty() && ::rename(partial.c_str(), to.c_str()) != 0)
      failed("cannot rename " + partial + " to " + to);
    if (!problem.empty()) ::unlink(partial.c_str());
  }
  if (!problem.empty()) {
    errno = error;
    fail(problem);
  }
  return true;
}

bool sameFile(const std::string& a, const std::string& b) {
  struct stat x, y;
  return ::stat(a.c_str(), &x) == 0 && ::stat(b.c_str(), &y) == 0 && x.st_dev == y.st_dev &&
         x.st_ino == y.st_ino;
}

}  // namespace

LogPruner::LogPruner(std::string directory, Options options)
    : directory_(std::move(directory)), options_(std::move(options)) {
  if (options_.archive.empty()) return;
  if (!LogDirectory::isDirectory(options_.archive))
    throw std::invalid_argument(options_.archive + ": not a directory");
  if (sameFile(options_.archive, directory_))
    throw std::invalid_argument(options_.archive + " is the directory of the logs itself");
}

void LogPruner::archive(const std::vector<LogFile>& logs, std::vector<bool>& moved) const {
  const std::string to = LogDirectory::withSlash(options_.archive);
  std::vector<std::size_t> copied;
  for (std::size_t i = 0; i < logs.size(); ++i) {
    const std::string target = to + logs[i].name;
    if (::rename(logs[i].path.c_str(), target.c_str()) == 0) {
      moved[i] = true;
      continue;
    }
    if (errno == ENOENT) continue;  // gone meanwhile: renamed again by the plugin, or pruned
    if (errno != EXDEV) fail("cannot move " + logs[i].path + " to " + target);
    if (copyInto(logs[i].path, target)) copied.push_back(i);
  }
  // The archive holds the logs for good before any original copied there goes.
  syncDirectory(options_.archive);
  for (const std::size_t i : copied) {
    if (::unlink(logs[i].path.c_str()) == 0)
      moved[i] = true;
    else if (errno != ENOENT)
      fail("cannot remove " + logs[i].path + " (archived in " + to + ")");
  }
}

LogPruner::Outcome LogPruner::prune(const std::vector<Consumer>& consumers,
                                    std::int64_t now) const {
  if (consumers.empty()) throw std::invalid_argument("no consumer to prune for");
  // One prune at a time in a directory, so that each finds the mark the last one left.
  int lock = -1;
  if (!options_.dryRun) {
    lock = openDirectory(directory_);
    while (::flock(lock, LOCK_EX) != 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      ::close(lock);
      errno = error;
      fail("cannot lock directory " + directory_);
    }
  }
  try {
    PruneMark mark(directory_);
    const std::vector<LogFile> logs = LogDirectory::list(directory_);
    for (const Consumer& c : consumers) {
      if (c.position.empty() || knownHere(c.position, logs, mark)) continue;
      throw std::runtime_error(
          c.name + ": its position names " + c.position.lastName() + ", a log that " + directory_ +
          " neither holds nor had pruned: is it a consumer of this directory? Nothing was "
          "pruned (once the consumer takes a log of this directory, its position names that one)");
    }
    Outcome o;
    o.needed.assign(consumers.size(), 0);
    std::vector<LogFile> going;
    for (const LogFile& log : logs) {
      bool taken = true;
      bool unknown = false;
      for (std::size_t i = 0; i < consumers.size(); ++i) {
        const FollowPosition::Verdict v = consumers[i].position.check(log);
        if (v == FollowPosition::Verdict::kDone) continue;
        taken = false;
        unknown = unknown || v == FollowPosition::Verdict::kUnknown;
        ++o.needed[i];
      }
      if (!taken || now - log.publishedAt < options_.keepFor) {
        ++o.kept;
        o.unknown += unknown;
        o.young += taken;
        continue;
      }
      going.push_back(log);
    }
    std::vector<std::uint64_t> sizes(going.size(), 0);
    for (std::size_t i = 0; i < going.size(); ++i) {
      struct stat st;
      if (::stat(going[i].path.c_str(), &st) == 0)
        sizes[i] = static_cast<std::uint64_t>(st.st_size);
    }
    std::vector<bool> gone(going.size(), options_.dryRun);
    if (!options_.dryRun) {
      mark.record(going);
      if (!options_.archive.empty()) {
        archive(going, gone);
      } else {
        for (std::size_t i = 0; i < going.size(); ++i) {
          if (::unlink(going[i].path.c_str()) == 0)
            gone[i] = true;
          else if (errno != ENOENT)
            fail("cannot remove " + going[i].path);
        }
      }
      if (::fsync(lock) != 0) fail("cannot sync directory " + directory_);
    }
    for (std::size_t i = 0; i < going.size(); ++i) {
      if (!gone[i]) continue;
      o.pruned.push_back(going[i]);
      o.bytes += sizes[i];
    }
    if (lock >= 0) ::close(lock);
    return o;
  } catch (...) {
    if (lock >= 0) ::close(lock);
    throw;
  }
}
