#include "LogFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

bool LogFile::examine(const std::string& path, LogFile& log) {
  if (!LogName::parse(path, log.parsed)) return false;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    // Only a file that is gone is not there; any other failure (EIO, ESTALE, a directory that
    // cannot be searched) says nothing of the log, and taking it for gone would skip it.
    if (errno == ENOENT) return false;
    throw std::runtime_error("cannot examine " + path + ": " + std::strerror(errno));
  }
  if (!S_ISREG(st.st_mode)) return false;
  log.path = path;
  log.name = LogName::baseName(path);
  log.changed = static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
  log.publishedAt = log.changed;
  log.fromName = false;
  // A name's second far outside any clock's range says nothing either (and would overflow).
  constexpr std::int64_t kFar = 9000000000;
  if (log.parsed.time > -kFar && log.parsed.time < kFar) {
    const std::int64_t named = log.parsed.time * 1000000000;
    log.fromName = log.changed < named || log.changed >= named + kPublishWindow;
    if (log.fromName) log.publishedAt = named;
  }
  return true;
}
