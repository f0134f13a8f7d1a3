// The lines fbcdc writes on stderr, each with its level, in the style of where they go:
//
//   plain    "fbcdc follow: text", for a terminal and for scripts (the default)
//   journal  "<3>fbcdc follow: text": the level as an sd-daemon prefix, which the systemd journal
//            reads (SyslogLevelPrefix=) and drops; the journal adds the time itself
//   time     "2026-11-24T10:27:39.123Z error fbcdc follow: text": for a log file
//
// The style is "journal" when stderr is the journal's stream (JOURNAL_STREAM names its device and
// inode, as systemd sets it for a service), else "plain"; the environment variable FBCDC_LOG set to
// plain, journal or time chooses it instead.
#pragma once

#include <cstdint>
#include <string>

namespace fbcdc {

class Messages {
 public:
  // The syslog levels, as the sd-daemon prefix numbers them.
  enum class Level { kError = 3, kWarning = 4, kInfo = 6 };
  enum class Style { kPlain, kJournal, kTime };

  // Writes line with its level on stderr, in the process's style.
  static void print(Level level, const std::string& line);
  // What goes before a line of level in style, at now (nanoseconds since 1970-01-01 UTC).
  static std::string prefix(Level level, Style style, std::int64_t now);
  // The process's style, decided once from the environment and stderr.
  static Style style();
};

}  // namespace fbcdc
