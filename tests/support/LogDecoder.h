// Decodes a change log back into records, for comparing what the plugin wrote with what it was
// given. Reads through TReadFile with CRC checking, so every block is verified on the way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "TestFiles.h"

struct DecodedValue {
  std::uint8_t marker = 0;  // 0xFD new, 0xFE old
  bool null = false;
  std::uint8_t type = 0;
  std::uint8_t charSet = 0;
  std::int16_t scale = 0;
  Bytes payload;                    // the value's bytes; for texts without length, for blobs joined
  std::vector<std::size_t> pieces;  // blob and array piece lengths, in order
};

struct DecodedField {
  std::string name;
  std::vector<DecodedValue> values;
};

struct DecodedRecord {
  char tag = 0;
  std::string name;  // relation name, or the statement text
  std::vector<DecodedField> fields;
  std::int64_t number = 0;  // statements only
};

// The records of a published log; throws on anything that does not follow the format.
std::vector<DecodedRecord> decodeLog(const std::string& path);
