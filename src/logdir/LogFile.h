// A change log file found in a directory, with what orders it among the others.
#pragma once

#include <cstdint>
#include <string>

#include "LogName.h"

struct LogFile {
  std::string path;  // as found: the directory joined with the name
  std::string name;  // the last component
  LogName parsed;
  // When the log was published, in nanoseconds. Publishing is a rename, which sets the file's
  // status-change time: finer than the second in the name. A status-change time that the rename
  // cannot have set, outside the minute from the name's second on (after a chmod, a copy, a
  // restore), tells nothing of publication: the name's second stands in, and fromName is set.
  std::int64_t publishedAt = 0;
  bool fromName = false;
  std::int64_t changed = 0;  // the status-change time itself

  // Publication order: by publication time, then by name (time of publication, then transaction
  // number). Two logs published within one tick of the file system's clock (a few milliseconds),
  // or two whose times come from their names within one second, fall back to the name.
  bool operator<(const LogFile& other) const {
    return publishedAt != other.publishedAt ? publishedAt < other.publishedAt : name < other.name;
  }

  // How long after the second in its name a log's publishing rename may set its status-change
  // time: the name is formed just before the rename, but a rename may stall under load, and a log
  // taken for changed when it is new could be passed over. Generous, so that never happens.
  static constexpr std::int64_t kPublishWindow = 60 * std::int64_t{1000000000};

  // Fills a LogFile for path; false when it is not a log's name, not a regular file, or gone.
  // Throws std::runtime_error when the file cannot be examined for another reason.
  static bool examine(const std::string& path, LogFile& log);
};
