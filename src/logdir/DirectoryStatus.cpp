#include "DirectoryStatus.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "LogDirectory.h"

namespace {

constexpr std::int64_t kSecond = 1000000000;

// The file's status; false when it is gone (pruned, or renamed by its writer, since it was listed).
bool statOf(const std::string& path, struct stat& st) {
  if (::stat(path.c_str(), &st) == 0) return true;
  if (errno == ENOENT) return false;
  throw std::runtime_error("cannot examine " + path + ": " + std::strerror(errno));
}

}  // namespace

DirectoryStatus::DirectoryStatus(const std::string& directory, std::int64_t now) : now_(now) {
  for (LogFile& log : LogDirectory::list(directory, LogDirectory::Which::kBoth)) {
    struct stat st;
    if (!statOf(log.path, st)) continue;
    const auto bytes = static_cast<std::uint64_t>(st.st_size);
    if (log.parsed.published) {
      publishedBytes_ += bytes;
      published_.push_back({std::move(log), bytes});
      continue;
    }
    ++temporaries_;
    const std::int64_t age = now / kSecond - log.parsed.time;
    if (age > kStaleSeconds) {
      const std::int64_t written =
          static_cast<std::int64_t>(st.st_mtim.tv_sec) * kSecond + st.st_mtim.tv_nsec;
      stale_.push_back(
          {log.name, bytes, age, std::max<std::int64_t>(0, (now - written) / kSecond)});
    }
  }
  struct statvfs fs;
  if (::statvfs(directory.c_str(), &fs) != 0)
    throw std::runtime_error("cannot read the free space of " + directory + ": " +
                             std::strerror(errno));
  freeBytes_ = static_cast<std::uint64_t>(fs.f_bavail) * fs.f_frsize;
  totalBytes_ = static_cast<std::uint64_t>(fs.f_blocks) * fs.f_frsize;
}

DirectoryStatus::Backlog DirectoryStatus::behind(const FollowPosition& position) const {
  Backlog b;
  for (const Log& log : published_) {
    if (position.check(log.file) == FollowPosition::Verdict::kDone) continue;
    if (b.logs++ == 0) {
      b.oldest = log.file.name;
      b.lag = std::max<std::int64_t>(0, now_ - log.file.publishedAt);
    }
    b.bytes += log.bytes;
  }
  return b;
}
