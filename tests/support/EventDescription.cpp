#include "EventDescription.h"

#include <cstdio>

#include "TestFiles.h"

std::string hexOf(std::string_view bytes) {
  std::string out;
  char piece[4];
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(piece, sizeof piece, i ? " %02X" : "%02X", static_cast<unsigned char>(bytes[i]));
    out += piece;
  }
  return out;
}

// The same description of a value, from what the test wrote and from what the decoder read.
std::string describe(const FieldValue& v) {
  using Kind = FieldValue::Kind;
  const std::string scale = " scale " + std::to_string(v.scale) + " ";
  switch (v.kind) {
    case Kind::kAbsent:
      return "absent";
    case Kind::kNull:
      return "null";
    case Kind::kText:
      return "text" + std::to_string(v.typeCode) + " cs" + std::to_string(v.charSet) + " " +
             hexOf(v.bytes);
    case Kind::kShort:
      return "short" + scale + std::to_string(v.integer);
    case Kind::kLong:
      return "long" + scale + std::to_string(v.integer);
    case Kind::kInt64:
      return "int64" + scale + std::to_string(v.integer);
    case Kind::kFloat:
      return "float " + bitsOf(v.real);
    case Kind::kDouble:
      return "double " + bitsOf(v.real);
    case Kind::kDate:
      return "date " + std::to_string(v.integer);
    case Kind::kTime:
      return "time " + std::to_string(v.integer);
    case Kind::kTimestamp:
      return "timestamp " + std::to_string(v.integer) + " " + std::to_string(v.time);
    case Kind::kBoolean:
      return "boolean " + std::to_string(v.integer);
    case Kind::kBlob:
    case Kind::kArray:
      return "blob " + std::to_string(v.size) + " " +
             std::to_string(
                 slowCrc32c(reinterpret_cast<const std::uint8_t*>(v.bytes.data()), v.bytes.size()));
  }
  return "?";
}

std::string describe(const ChangeEvent& e) {
  static const char* const kinds[] = {"I", "U", "D", "S", "E"};
  std::string s = std::string(kinds[static_cast<int>(e.kind)]) + "|" + std::string(e.relation);
  if (e.kind == ChangeEvent::Kind::kSql)
    return s + std::string(e.sqlText) + "|" + std::to_string(e.sqlNumber);
  for (const FieldChange& f : e.fields)
    s += "|" + std::string(f.name) + ":" + describe(f.before) + ">" + describe(f.after);
  return s;
}
