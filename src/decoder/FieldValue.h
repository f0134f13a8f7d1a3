// One value of one field, as a change log carries it. Read it by its kind, as a tagged union: a
// decoder sets only the members the kind uses (listed beside each kind), and the others may hold
// what an earlier value left.
#pragma once

#include <cstdint>
#include <string_view>

struct FieldValue {
  enum class Kind : std::uint8_t {
    kAbsent,  // the log does not carry this value (an old blob or array value, for one)
    kNull,    // (absent and null values set no other member)
    kText,    // charSet, bytes; typeCode 1 fixed-length (pad removed), 2 zero-terminated, 3 varying
    kShort,   // integer, scale
    kLong,    // integer, scale
    kInt64,   // integer, scale
    kFloat,   // real: the writer widened it to a double
    kDouble,  // real
    kDate,    // integer: days since 1858-11-17
    kTime,    // integer: units of 1/10000 s since midnight
    kTimestamp,  // integer: the date; time: the time of day
    kBoolean,    // integer: the byte as written (0 false, anything else true)
    kBlob,       // bytes: the contents (empty when streamed); size, pieces, streamed
    kArray,      // as kBlob: what the server delivered for the array
  };

  Kind kind = Kind::kAbsent;
  std::uint8_t typeCode = 0;  // the log's type code, for every kind but absent and null
  std::uint8_t charSet = 0;   // texts: the low byte of the server's character set number
  std::int16_t scale = 0;     // exact numbers
  bool streamed = false;      // blob or array handed out piece by piece; bytes is empty
  std::uint32_t time = 0;     // timestamps
  std::int64_t integer = 0;
  double real = 0;
  // Text bytes, or blob and array contents. Points into the decoder, valid until its next event.
  std::string_view bytes;
  std::uint64_t size = 0;    // blobs and arrays: the contents' length, also when streamed
  std::uint32_t pieces = 0;  // blobs and arrays: the number of pieces in the log

  bool present() const { return kind != Kind::kAbsent; }
  bool isBlobLike() const { return kind == Kind::kBlob || kind == Kind::kArray; }
};
