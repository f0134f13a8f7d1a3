#include "LiteralRow.h"

#include <cstring>

LiteralRow& LiteralRow::add(const char* name, std::uint32_t type, const void* data,
                            std::size_t size, std::int32_t scale, std::int32_t charSet) {
  Field f;
  f.name = name ? name : "";
  f.nameIsNull = name == nullptr;
  f.type = type;
  f.scale = scale;
  f.length = static_cast<std::int32_t>(size);
  f.charSet = charSet;
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  f.value.assign(bytes, bytes + size);
  addField(std::move(f));
  return *this;
}

LiteralRow& LiteralRow::addShort(const char* name, std::int16_t value, std::int32_t scale) {
  return add(name, 8, &value, sizeof value, scale);
}
LiteralRow& LiteralRow::addLong(const char* name, std::int32_t value, std::int32_t scale) {
  return add(name, 9, &value, sizeof value, scale);
}
LiteralRow& LiteralRow::addInt64(const char* name, std::int64_t value, std::int32_t scale) {
  return add(name, 19, &value, sizeof value, scale);
}
LiteralRow& LiteralRow::addFloat(const char* name, float value) {
  return add(name, 11, &value, sizeof value);
}
LiteralRow& LiteralRow::addDouble(const char* name, double value) {
  return add(name, 12, &value, sizeof value);
}
LiteralRow& LiteralRow::addDate(const char* name, std::int32_t value) {
  return add(name, 14, &value, sizeof value);
}
LiteralRow& LiteralRow::addTime(const char* name, std::uint32_t value) {
  return add(name, 15, &value, sizeof value);
}
LiteralRow& LiteralRow::addTimestamp(const char* name, std::int32_t date, std::uint32_t time) {
  std::uint8_t words[8];
  std::memcpy(words, &date, 4);
  std::memcpy(words + 4, &time, 4);
  return add(name, 16, words, sizeof words);
}
LiteralRow& LiteralRow::addBoolean(const char* name, bool value) {
  const std::uint8_t b = value ? 1 : 0;
  return add(name, 21, &b, 1);
}
LiteralRow& LiteralRow::addChar(const char* name, const std::string& bytes, std::int32_t charSet) {
  return add(name, 1, bytes.data(), bytes.size(), 0, charSet);
}
LiteralRow& LiteralRow::addVarchar(const char* name, const std::string& text,
                                   std::int32_t charSet) {
  std::string bytes(2, '\0');
  const std::uint16_t n = static_cast<std::uint16_t>(text.size());
  std::memcpy(&bytes[0], &n, 2);
  bytes += text;
  return add(name, 3, bytes.data(), bytes.size(), 0, charSet);
}
LiteralRow& LiteralRow::addCString(const char* name, const std::string& text,
                                   std::int32_t charSet) {
  return add(name, 2, text.c_str(), text.size() + 1, 0, charSet);
}
LiteralRow& LiteralRow::addBlob(const char* name, const ISC_QUAD& id) {
  return add(name, 17, &id, sizeof id);
}
LiteralRow& LiteralRow::addArray(const char* name, const ISC_QUAD& id) {
  return add(name, 18, &id, sizeof id);
}
LiteralRow& LiteralRow::addNull(const char* name, std::uint32_t type) {
  add(name, type, nullptr, 0);
  lastField().null = true;
  return *this;
}
LiteralRow& LiteralRow::addRaw(const char* name, std::uint32_t type, std::string bytes,
                               std::int32_t length, std::int32_t scale, std::int32_t charSet) {
  add(name, type, bytes.data(), bytes.size(), scale, charSet);
  if (length) lastField().length = length;
  return *this;
}
