#include "LogDirectory.h"

#include <dirent.h>
#include <sys/stat.h>

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

std::vector<LogFile> LogDirectory::list(const std::string& directory, Which which) {
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
    if (wanted) logs.push_back(std::move(log));
  }
  ::closedir(dir);
  std::sort(logs.begin(), logs.end());
  return logs;
}
