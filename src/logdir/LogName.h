// The name of a change log file: "<time>_<transaction>.fbl" once published, ".tmp" while open,
// both numbers as 16 lower-case hexadecimal digits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct LogName {
  std::int64_t time = 0;  // seconds since 1970-01-01 UTC: publication (or start, for ".tmp")
  std::uint64_t transaction = 0;
  bool published = false;  // ".fbl" rather than ".tmp"

  // Parses the last component of path; false when it is not a log's name.
  static bool parse(const std::string& path, LogName& name);
  // The same for a last component of size bytes, without copying it.
  static bool parseBase(const char* base, std::size_t size, LogName& name);
  // The last component of a path.
  static std::string baseName(const std::string& path);
};
