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

std::vector<LogFile> LogDirectory::list(const std::string& directory, Which which, bool settled,
                                        const std::function<bool(const LogName&)>& skip) {
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
  try {
    for (;;) {
      // Only errno tells the end of the listing from a failed read (EIO, ESTALE): a listing cut
      // short would pass for a directory without the logs it did not reach.
      errno = 0;
      const dirent* entry = ::readdir(dir);
      if (!entry) {
        if (errno != 0)
          throw std::runtime_error("cannot read directory " + directory + ": " +
                                   std::strerror(errno));
        break;
      }
      LogName name;
      if (!LogName::parseBase(entry->d_name, std::strlen(entry->d_name), name)) continue;
      const bool wanted = which == Which::kBoth || (which == Which::kPublished) == name.published;
      if (!wanted || (skip && skip(name))) continue;
      LogFile log;
      if (!LogFile::examine(prefix + entry->d_name, log)) continue;
      if (!(settled && log.changed > began)) logs.push_back(std::move(log));
    }
  } catch (...) {
    ::closedir(dir);
    throw;
  }
  ::closedir(dir);
  std::sort(logs.begin(), logs.end());
  return logs;
}
