// Which logs a user asked for, as mysqlbinlog users know it: by the time in the log's name
// (--since inclusive, --until exclusive) and by name (--from and --to, both inclusive).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "LogFile.h"

struct LogRange {
  std::optional<std::int64_t> since;  // seconds since 1970-01-01 UTC
  std::optional<std::int64_t> until;
  std::optional<std::string> from;  // log names
  std::optional<std::string> to;

  bool contains(const LogFile& log) const;
  // Whether no later log can be in the range (used to stop following).
  bool endsBefore(const LogFile& log) const;
  // Whether no log published from the second now on can be in the range: its name will carry that
  // second or a later one (used to stop waiting for logs that cannot come).
  bool closedAt(std::int64_t now) const;

  // Reads "2023-11-14T22:13:23Z", "2023-11-14 22:13:23", "2023-11-14" (UTC) or "@1700000003";
  // false when the text is none of these.
  static bool parseTime(const std::string& text, std::int64_t& seconds);
};
