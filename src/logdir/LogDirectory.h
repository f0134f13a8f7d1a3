// The change logs of a directory, in publication order (see LogFile).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "LogFile.h"

class LogDirectory {
 public:
  enum class Which { kPublished, kTemporary, kBoth };

  // The logs of directory, sorted in publication order; throws std::runtime_error when the
  // directory cannot be read whole, or a log in it cannot be examined. Entries that vanish while
  // they are listed are left out, and so are those that skip rejects by their names alone, before
  // their files are looked at.
  //
  // A directory read while renames go on may miss a log renamed early in it and return one renamed
  // later; a consumer that moved its position past the later one would never take the first. With
  // settled, logs renamed in after the read began are left out too, for the next look to find.
  static std::vector<LogFile> list(const std::string& directory, Which which = Which::kPublished,
                                   bool settled = false,
                                   const std::function<bool(const LogName&)>& skip = nullptr);

  // directory with exactly one "/" at its end.
  static std::string withSlash(const std::string& directory);
  static bool isDirectory(const std::string& path);
};
