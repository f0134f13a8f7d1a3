#include "EventDescription.h"

#include "TestFiles.h"

std::string hexOf(std::string_view bytes) { return hex(Bytes(bytes.begin(), bytes.end())); }

// The same description of a value, from what the test wrote and from what the decoder read.
std::string describe(const FieldValue& v) {
  using Kind = FieldValue::Kind;
  static const char* const names[] = {"absent",    "null",    "text",   "short", "long",
                                      "int64",     "float",   "double", "date",  "time",
                                      "timestamp", "boolean", "blob",   "blob"};
  const std::string name = names[static_cast<int>(v.kind)];
  switch (v.kind) {
    case Kind::kAbsent:
    case Kind::kNull:
      return name;
    case Kind::kText:
      return "text" + std::to_string(v.typeCode) + " cs" + std::to_string(v.charSet) + " " +
             hexOf(v.bytes);
    case Kind::kShort:
    case Kind::kLong:
    case Kind::kInt64:
      return name + " scale " + std::to_string(v.scale) + " " + std::to_string(v.integer);
    case Kind::kFloat:
    case Kind::kDouble:
      return name + " " + bitsOf(v.real);
    case Kind::kTimestamp:
      return name + " " + std::to_string(v.integer) + " " + std::to_string(v.time);
    case Kind::kBlob:
    case Kind::kArray:
      return name + " " + std::to_string(v.size) + " " +
             std::to_string(
                 slowCrc32c(reinterpret_cast<const std::uint8_t*>(v.bytes.data()), v.bytes.size()));
    default:  // date, time, boolean
      return name + " " + std::to_string(v.integer);
  }
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
