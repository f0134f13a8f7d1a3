// A change log file found in a directory, with what orders it among the others.
#pragma once

#include <cstdint>
#include <string>

#include "LogName.h"

struct LogFile {
  std::string path;  // as found: the directory joined with the name
  std::string name;  // the last component
  LogName parsed;
  // The file's status-change time in nanoseconds. Publishing is a rename, which sets it, so it
  // orders logs by publication more finely than the second in their names.
  std::int64_t changeTime = 0;

  // Publication order: by status-change time, then by name (time of publication, then
  // transaction number). Two logs published within one tick of the file system's clock (a few
  // milliseconds) fall back to the name.
  bool operator<(const LogFile& other) const {
    return changeTime != other.changeTime ? changeTime < other.changeTime : name < other.name;
  }

  // Fills a LogFile for path; false when it cannot be examined or is not a log's name.
  static bool examine(const std::string& path, LogFile& log);
};
