// How events are written out: the choices a user makes on the command line.
#pragma once

#include <cstdint>
#include <string>

struct EventFormat {
  // Scaled integers as exact decimal strings ("-12.34"), or as JSON numbers (doubles).
  bool decimalAsDouble = false;
  // Blob contents as base64, or as text (UTF-8, each invalid byte shown as U+FFFD).
  bool blobsAsText = false;
  // A BEGIN line before and an END line after each log's events.
  bool transactions = false;
  // Values whose text is longer are cut to this many bytes (0: no limit), or, with omitLarge,
  // replaced by "__omitted". For sinks whose messages have a size limit.
  std::size_t maxValueBytes = 0;
  bool omitLarge = false;
};

// What is known of a log from its file name.
struct LogInfo {
  std::string file;  // the file's name, without directory
  std::uint64_t transaction = 0;
  std::int64_t time = 0;  // seconds since 1970-01-01 UTC, from the name
};
