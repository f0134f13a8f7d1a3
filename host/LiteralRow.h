// A row image written out in code: each add* call appends one field with the value in the server's
// in-memory form.
//
//   LiteralRow row("T");
//   row.addLong("ID", 5).addVarchar("NAME", "Ada", 4).addNull("NOTE", 37);
//   transaction->insertRecord(status, attachment, tr, &row);
#pragma once

#include <string>

#include <firebird/Interface.h>

#include "RowImage.h"

class LiteralRow : public RowImage {
 public:
  explicit LiteralRow(const char* relation) : RowImage(relation) {}

  LiteralRow& addShort(const char* name, std::int16_t value, std::int32_t scale = 0);
  LiteralRow& addLong(const char* name, std::int32_t value, std::int32_t scale = 0);
  LiteralRow& addInt64(const char* name, std::int64_t value, std::int32_t scale = 0);
  LiteralRow& addFloat(const char* name, float value);
  LiteralRow& addDouble(const char* name, double value);
  LiteralRow& addDate(const char* name, std::int32_t value);
  LiteralRow& addTime(const char* name, std::uint32_t value);
  LiteralRow& addTimestamp(const char* name, std::int32_t date, std::uint32_t time);
  LiteralRow& addBoolean(const char* name, bool value);
  // Fixed-length text: bytes as stored, pad included; length is the declared length in bytes.
  LiteralRow& addChar(const char* name, const std::string& bytes, std::int32_t charSet);
  LiteralRow& addVarchar(const char* name, const std::string& text, std::int32_t charSet);
  LiteralRow& addCString(const char* name, const std::string& text, std::int32_t charSet);
  LiteralRow& addBlob(const char* name, const ISC_QUAD& id);
  LiteralRow& addArray(const char* name, const ISC_QUAD& id);
  LiteralRow& addNull(const char* name, std::uint32_t type);
  // Any field at all, for types and shapes the helpers do not cover (name may be null).
  LiteralRow& addRaw(const char* name, std::uint32_t type, std::string bytes,
                     std::int32_t length = 0, std::int32_t scale = 0, std::int32_t charSet = 0);

 private:
  LiteralRow& add(const char* name, std::uint32_t type, const void* data, std::size_t size,
                  std::int32_t scale = 0, std::int32_t charSet = 0);
};
