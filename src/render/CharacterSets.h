// Text of a change log in UTF-8. A text value carries the low byte of the server's character set
// number; the sets that can be read byte by byte are turned into UTF-8 here:
//   NONE (0) and ASCII (2): bytes above 7F become U+FFFD;
//   UNICODE_FSS (3) and UTF8 (4): taken as they are, each invalid byte becoming U+FFFD;
//   the single-byte sets ISO8859_x, WIN125x, DOSxxx, KOI8R, KOI8U and TIS620: through iconv, once
//   per set into a table of 256 entries; a byte the set leaves undefined becomes U+FFFD.
// OCTETS (1) and every other set (the multi-byte Asian sets among them) have no text form here;
// callers show their bytes in base64.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

class CharacterSets {
 public:
  // The Firebird name of a character set number ("WIN1252"), or null for an unknown number.
  static const char* nameOf(std::uint8_t charSet);
  // Whether appendUtf8 can read texts of this set.
  static bool isReadable(std::uint8_t charSet);
  // Appends bytes as UTF-8; false (and nothing appended) when the set is not readable.
  static bool appendUtf8(std::uint8_t charSet, std::string_view bytes, std::string& out);
  // Appends bytes that should be UTF-8, replacing each byte of an invalid sequence with U+FFFD.
  static void appendValidUtf8(std::string_view bytes, std::string& out);
};
