// How events are written out: the choices a user makes on the command line.
#pragma once

#include <cstdint>
#include <string>

struct EventFormat {
  // Scaled integers as exact decimal strings ("-12.34"), or as JSON numbers (doubles).
  bool decimalAsDouble = false;
  // The 64-bit integers of the JSON output (BIGINT values of scale 0, statement numbers, the log's
  // transaction number in "source") as decimal strings ("267232655130119182"), or as JSON numbers.
  // Readers that hold every number as a double (JavaScript, jq) round integers past 2^53, so
  // strings are the default. A string is chosen by the field's type, never by its value: a column
  // that is a number for small values and a string for large ones would fail its readers only in
  // production. 16- and 32-bit integers are numbers either way; the text listing always shows
  // integers as exact numbers.
  bool bigintAsNumber = false;
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
  // A snapshot file: its inserts are rows read (op "r", source.snapshot "true"), and the row of
  // index lastRow, when not -1, is the snapshot's last one ("last").
  bool snapshot = false;
  std::int64_t lastRow = -1;
};
