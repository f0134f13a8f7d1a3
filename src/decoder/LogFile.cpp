#include "LogFile.h"

#include <sys/stat.h>

bool LogFile::examine(const std::string& path, LogFile& log) {
  if (!LogName::parse(path, log.parsed)) return false;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  log.path = path;
  log.name = LogName::baseName(path);
  const std::int64_t changed =
      static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
  const std::int64_t named = log.parsed.time * 1000000000;
  log.fromName = changed < named || changed >= named + kPublishWindow;
  log.publishedAt = log.fromName ? named : changed;
  return true;
}
