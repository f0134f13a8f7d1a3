#include "LogFile.h"

#include <sys/stat.h>

bool LogFile::examine(const std::string& path, LogFile& log) {
  if (!LogName::parse(path, log.parsed)) return false;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  log.path = path;
  log.name = LogName::baseName(path);
  log.changeTime = static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
  return true;
}
