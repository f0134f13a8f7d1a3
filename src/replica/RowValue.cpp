#include "RowValue.h"

#include <charconv>
#include <cstring>

#include "CharacterSets.h"
#include "ValueText.h"

namespace {

// Texts and blobs are shown up to this many bytes.
constexpr std::size_t kShown = 60;

template <typename T>
T load(const unsigned char* p) {
  T x;
  std::memcpy(&x, p, sizeof x);
  return x;
}

bool validUtf8(std::string_view bytes) {
  std::string checked;
  CharacterSets::appendValidUtf8(bytes, checked);
  return checked == bytes;
}

// Quoted text, or hex where it cannot be read; cut to its first kShown bytes (at the start of a
// character) with its length after it.
void appendBytes(std::string& out, std::string_view bytes, bool readable) {
  std::string_view shown = bytes;
  if (shown.size() > kShown) {
    std::size_t n = kShown;
    while (readable && n > 0 && (static_cast<unsigned char>(shown[n]) & 0xC0) == 0x80) --n;
    shown = shown.substr(0, n);
  }
  static const char kHex[] = "0123456789abcdef";
  if (readable) {
    // One line: control characters as \xNN.
    out += '\'';
    for (const char c : shown) {
      const auto u = static_cast<unsigned char>(c);
      if (c == '\'') {
        out += "''";
      } else if (u < 0x20 || u == 0x7F) {
        out += "\\x";
        out += kHex[u >> 4];
        out += kHex[u & 15];
      } else {
        out += c;
      }
    }
    out += '\'';
  } else {
    out += "x'";
    for (const char c : shown) {
      out += kHex[static_cast<unsigned char>(c) >> 4];
      out += kHex[static_cast<unsigned char>(c) & 15];
    }
    out += '\'';
  }
  if (shown.size() < bytes.size()) out += "... (" + std::to_string(bytes.size()) + " bytes)";
}

template <typename T>
void appendShortest(std::string& out, T x) {
  char digits[32];
  const auto r = std::to_chars(digits, digits + sizeof digits, x);
  out.append(digits, r.ptr);
}

}  // namespace

FieldValue RowValue::read(Database& db, const Message& row, std::size_t i, std::string& storage) {
  using Kind = FieldValue::Kind;
  FieldValue v;
  v.kind = Kind::kNull;
  if (row.isNull(i)) return v;
  const Message::Field& f = row.field(i);
  const unsigned char* p = row.data(i);
  v.scale = static_cast<std::int16_t>(f.scale);
  switch (f.type) {
    case SQL_TEXT:
    case SQL_VARYING: {
      v.kind = Kind::kText;
      v.typeCode = f.type == SQL_TEXT ? 1 : 3;
      v.charSet = static_cast<std::uint8_t>(f.charSet & 0xFF);
      v.bytes = row.text(i);
      // A fixed-length text is carried without its pad, as the log carries it.
      const char pad = v.charSet == 1 ? '\0' : ' ';
      if (f.type == SQL_TEXT)
        while (!v.bytes.empty() && v.bytes.back() == pad) v.bytes.remove_suffix(1);
      break;
    }
    case SQL_SHORT:
      v.kind = Kind::kShort;
      v.integer = load<std::int16_t>(p);
      break;
    case SQL_LONG:
      v.kind = Kind::kLong;
      v.integer = load<std::int32_t>(p);
      break;
    case SQL_INT64:
      v.kind = Kind::kInt64;
      v.integer = load<std::int64_t>(p);
      break;
    case SQL_FLOAT:
      v.kind = Kind::kFloat;
      v.real = load<float>(p);
      break;
    case SQL_DOUBLE:
      v.kind = Kind::kDouble;
      v.real = load<double>(p);
      break;
    case SQL_TYPE_DATE:
      v.kind = Kind::kDate;
      v.integer = load<ISC_DATE>(p);
      break;
    case SQL_TYPE_TIME:
      v.kind = Kind::kTime;
      v.integer = load<ISC_TIME>(p);
      break;
    case SQL_TIMESTAMP: {
      const auto ts = load<ISC_TIMESTAMP>(p);
      v.kind = Kind::kTimestamp;
      v.integer = ts.timestamp_date;
      v.time = ts.timestamp_time;
      break;
    }
    case SQL_BOOLEAN:
      v.kind = Kind::kBoolean;
      v.integer = *p;
      break;
    case SQL_BLOB:
    case SQL_ARRAY:
      v.kind = f.type == SQL_BLOB ? Kind::kBlob : Kind::kArray;
      storage = db.readBlob(load<ISC_QUAD>(p));
      v.bytes = storage;
      v.size = storage.size();
      break;
    default:
      // A type no log carries: its bytes, shown in hex.
      v.kind = Kind::kText;
      v.charSet = 1;
      v.bytes = std::string_view(reinterpret_cast<const char*>(p), f.length);
      break;
  }
  return v;
}

std::string RowValue::compared(Database& db, const Message& row, std::size_t i) {
  if (row.isNull(i)) return std::string("\0null", 5);
  const Message::Field& f = row.field(i);
  if (f.type == SQL_BLOB || f.type == SQL_ARRAY) return db.readBlob(load<ISC_QUAD>(row.data(i)));
  if (f.type == SQL_VARYING) return std::string(row.text(i));
  return std::string(reinterpret_cast<const char*>(row.data(i)), f.length);
}

std::string RowValue::text(const FieldValue& v) {
  using Kind = FieldValue::Kind;
  std::string out;
  switch (v.kind) {
    case Kind::kAbsent:
      return "(not carried)";
    case Kind::kNull:
      return "NULL";
    case Kind::kShort:
    case Kind::kLong:
    case Kind::kInt64:
      ValueText::appendScaled(out, v.integer, v.scale);
      break;
    case Kind::kFloat:
      appendShortest(out, static_cast<float>(v.real));
      break;
    case Kind::kDouble:
      appendShortest(out, v.real);
      break;
    case Kind::kDate:
      ValueText::appendDate(out, v.integer);
      break;
    case Kind::kTime:
      ValueText::appendTime(out, static_cast<std::uint32_t>(v.integer));
      break;
    case Kind::kTimestamp:
      ValueText::appendTimestamp(out, v.integer, v.time);
      break;
    case Kind::kBoolean:
      return v.integer ? "TRUE" : "FALSE";
    case Kind::kText: {
      std::string utf8;
      const bool readable = CharacterSets::appendUtf8(v.charSet, v.bytes, utf8);
      appendBytes(out, readable ? std::string_view(utf8) : v.bytes, readable);
      break;
    }
    case Kind::kBlob:
    case Kind::kArray:
      out = v.kind == Kind::kBlob ? "blob " : "array ";
      appendBytes(out, v.bytes, v.kind == Kind::kBlob && validUtf8(v.bytes));
      if (v.bytes.size() <= kShown) out += " (" + std::to_string(v.bytes.size()) + " bytes)";
      break;
  }
  return out;
}
