#include "LogDirectory.h"

#include <dirent.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

std::string LogDirectory::withSlash(const std::string& directory) {
  if (!directory.empty() && directory.back() == '/') return directory;
  return directory + "/";
}

bool LogDirectory::isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<LogFile> LogDirectory::list(const std::string& directory, Which which, bool settled) {
  // Read from the fine clock: every rename before this moment has a time at or before it, whether
  // the file system stamps from the coarse clock or (as recent kernels do) from the fine one. A
  // rename during the read may still get an earlier coarse tick: ties in one tick are told apart
  // by name, as everywhere.
  timespec now{};
  if (settled) ::clock_gettime(CLOCK_REALTIME, &now);
  const std::int64_t began = static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
  DIR* dir = ::opendir(directory.c_str());
  if (!dir)
    throw std::runtime_error("cannot read directory " + directory + ": " + std::strerror(errno));
  const std::string prefix = withSlash(directory);
  std::vector<LogFile> logs;
  while (dirent* entry = ::readdir(dir)) {
    LogFile log;
    if (!LogFile::examine(prefix + entry->d_name, log)) continue;
    const bool wanted =
        which == Which::kBoth || (which == Which::kPublished) == log.parsed.published;
    if (wanted && !(settled && log.changed > began)) logs.push_back(std::move(log));
  }
  ::closedir(dir);
  std::sort(logs.begin(), logs.end());
  return logs;
}
