#include "LogDecoder.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "LogFormatError.h"
#include "ReplException.h"

namespace {

constexpr std::uint8_t kInsertTag = 0x49;
constexpr std::uint8_t kUpdateTag = 0x55;
constexpr std::uint8_t kDeleteTag = 0x44;
constexpr std::uint8_t kSqlTag = 0x53;
constexpr std::uint8_t kCommitMarker = 0x7B;
constexpr std::uint8_t kNewValue = 0xFD;
constexpr std::uint8_t kOldValue = 0xFE;
constexpr std::uint8_t kEndOfRecord = 0xFF;
constexpr std::uint8_t kNull = 99;
constexpr std::uint8_t kInt64Type = 19;
// The writer refuses longer relation and field names: their length byte could not be told from a
// value marker or the end byte.
constexpr std::uint8_t kMaxName = 252;
constexpr std::uint8_t kMaxStatement = 255;

const char kTagExpected[] = "a record tag (49 I, 55 U, 44 D, 53 S) or the commit marker 7B";
const char kTypeExpected[] =
    "a type code the writer produces (1, 2, 3, 8, 9, 11, 12, 14 to 19, 21) or 63 for null";

std::string hexByte(std::uint8_t b) {
  char text[8];
  std::snprintf(text, sizeof text, "%02X", b);
  return text;
}

}  // namespace

void LogDecoder::streamBlobs(std::uint64_t threshold, BlobReceiver receiver) {
  streamThreshold_ = threshold;
  receiver_ = std::move(receiver);
}

void LogDecoder::open(const std::string& path) {
  path_ = path;
  finished_ = true;
  nextIndex_ = 0;
  try {
    file_.open(path.c_str(), true);
  } catch (const ReplException& e) {
    fail(0, e.second());
  }
  try {
    static const char kMagic[] = "ZEFO";
    for (int i = 0; i < 4; ++i) {
      const std::uint8_t b = byte("the magic \"ZEFO\"");
      if (b != static_cast<std::uint8_t>(kMagic[i])) failByte("the magic \"ZEFO\"", b);
    }
    const std::uint8_t version = byte("the format version");
    if (version != kFormatVersion) failByte("the format version 04", version);
  } catch (const ReplException& e) {
    fail(file_.getPosition(), e.second());
  }
  finished_ = false;
}

const ChangeEvent& LogDecoder::next() {
  if (finished_) throw std::logic_error("LogDecoder::next: no log open, or its end was read");
  try {
    arenaSize_ = 0;
    spans_.clear();
    event_.fields.clear();
    event_.relation = {};
    event_.sqlText = {};
    event_.sqlNumber = 0;
    event_.index = nextIndex_;
    event_.position = file_.getPosition();
    const std::uint8_t tag = byte(kTagExpected);
    if (tag == kCommitMarker) {
      // A published log always holds a record, and its stream ends with the marker.
      if (nextIndex_ == 0)
        fail(event_.position, "the log holds no record before its commit marker");
      if (!file_.atEnd()) fail(file_.getPosition(), "bytes follow the commit marker");
      event_.kind = ChangeEvent::Kind::kEnd;
      finished_ = true;
      return event_;
    }
    readRecord(tag);
  } catch (const ReplException& e) {
    // The block reader's failures: a damaged block, a block too short, a failed read.
    finished_ = true;
    fail(file_.getPosition(), std::string(e.first()) + ": " + e.second());
  } catch (...) {
    finished_ = true;
    throw;
  }
  ++nextIndex_;
  return event_;
}

void LogDecoder::readRecord(std::uint8_t tag) {
  switch (tag) {
    case kInsertTag:
      event_.kind = ChangeEvent::Kind::kInsert;
      break;
    case kUpdateTag:
      event_.kind = ChangeEvent::Kind::kUpdate;
      break;
    case kDeleteTag:
      event_.kind = ChangeEvent::Kind::kDelete;
      break;
    case kSqlTag:
      event_.kind = ChangeEvent::Kind::kSql;
      break;
    default:
      failByte(kTagExpected, tag);
  }
  const std::uint8_t zero = byte("the 00 byte behind the record tag");
  if (zero != 0) failByte("the 00 byte behind the record tag", zero);
  if (event_.kind == ChangeEvent::Kind::kSql) {
    relationSpan_ = readShortText(kMaxStatement, "the statement text");
    const std::uint8_t type = byte("the statement number's type code 13");
    if (type != kInt64Type) failByte("the statement number's type code 13", type);
    const auto scale = number<2>("the statement number's scale");
    if (scale != 0) fail(lastBytePosition() - 1, "expected the statement number's scale 0");
    event_.sqlNumber = static_cast<std::int64_t>(number<8>("the statement number"));
  } else {
    relationSpan_ = readShortText(kMaxName, "the relation name");
    readFields(event_.kind);
  }
  resolveViews();
}

void LogDecoder::readFields(ChangeEvent::Kind kind) {
  static const char kNameExpected[] =
      "a field name length (01 to FC) or the end of the record (FF)";
  // Behind a field's values stands the next field's name length or the end byte; a delete entry of
  // a blob or array field is its name alone, so the byte read after a name may be either.
  int pending = -1;
  for (;;) {
    const std::uint8_t length =
        pending >= 0 ? static_cast<std::uint8_t>(pending) : byte(kNameExpected);
    pending = -1;
    if (length == kEndOfRecord) return;
    if (length == 0 || length > kMaxName) failByte(kNameExpected, length);
    const std::size_t index = event_.fields.size();
    event_.fields.emplace_back();
    spans_.emplace_back();
    spans_[index].name = readBytes(length, "a field name");

    std::uint8_t marker = byte("a value marker");
    if (kind == ChangeEvent::Kind::kInsert) {
      if (marker != kNewValue) failByte("the new value marker FD of an insert", marker);
      readValue(event_.fields[index].after, spans_[index].after, false, index);
      continue;
    }
    if (marker == kOldValue) {
      readValue(event_.fields[index].before, spans_[index].before, true, index);
      if (kind == ChangeEvent::Kind::kDelete) continue;
      marker = byte("the new value marker FD");
    }
    if (kind == ChangeEvent::Kind::kUpdate) {
      if (marker != kNewValue) failByte("the new value marker FD of an update", marker);
      readValue(event_.fields[index].after, spans_[index].after, false, index);
      continue;
    }
    // A delete entry without a value: the byte read is the next name's length or the end byte.
    if (marker == kNewValue) failByte("the old value marker FE of a delete", marker);
    pending = marker;
  }
}

void LogDecoder::readValue(FieldValue& value, Span& bytes, bool old, std::size_t field) {
  const std::uint8_t type = byte(kTypeExpected);
  using Kind = FieldValue::Kind;
  if (type == kNull) {
    value.kind = Kind::kNull;
    return;
  }
  value.typeCode = type;
  switch (type) {
    case 1:
    case 2:
    case 3:
      value.kind = Kind::kText;
      value.charSet = byte("a text's character set");
      bytes = readBytes(number<2>("a text's length"), "a text's bytes");
      return;
    case 8:
      value.kind = Kind::kShort;
      value.scale = static_cast<std::int16_t>(number<2>("a scale"));
      value.integer = static_cast<std::int16_t>(number<2>("a 16-bit integer"));
      return;
    case 9:
      value.kind = Kind::kLong;
      value.scale = static_cast<std::int16_t>(number<2>("a scale"));
      value.integer = static_cast<std::int32_t>(number<4>("a 32-bit integer"));
      return;
    case 19:
      value.kind = Kind::kInt64;
      value.scale = static_cast<std::int16_t>(number<2>("a scale"));
      value.integer = static_cast<std::int64_t>(number<8>("a 64-bit integer"));
      return;
    case 11:
    case 12: {
      value.kind = type == 11 ? Kind::kFloat : Kind::kDouble;
      const std::uint64_t bits = number<8>("a double");
      std::memcpy(&value.real, &bits, sizeof value.real);
      return;
    }
    case 14:
      value.kind = Kind::kDate;
      value.integer = static_cast<std::int32_t>(number<4>("a date"));
      return;
    case 15:
      value.kind = Kind::kTime;
      value.integer = static_cast<std::uint32_t>(number<4>("a time"));
      return;
    case 16:
      value.kind = Kind::kTimestamp;
      value.integer = static_cast<std::int32_t>(number<4>("a timestamp's date"));
      value.time = static_cast<std::uint32_t>(number<4>("a timestamp's time"));
      return;
    case 21:
      value.kind = Kind::kBoolean;
      value.integer = byte("a boolean");
      return;
    case 17:
    case 18:
      // The writer never records an old blob or array value.
      if (old) failByte("an old value's type code (a blob or array has none)", type);
      value.kind = type == 17 ? Kind::kBlob : Kind::kArray;
      readPieces(value, bytes, field);
      return;
    default:
      failByte(kTypeExpected, type);
  }
}

void LogDecoder::readPieces(FieldValue& value, Span& bytes, std::size_t field) {
  bytes.offset = arenaSize_;
  for (;;) {
    const auto length = static_cast<std::size_t>(number<2>("a piece length"));
    if (length == 0) break;
    ++value.pieces;
    value.size += length;
    readBytes(length, "a piece of a blob or array");
    if (!receiver_ || value.size <= streamThreshold_) continue;
    // Too long to hold: what was gathered goes to the receiver, and so does every later piece.
    const std::string_view name(arena_.get() + spans_[field].name.offset, spans_[field].name.size);
    receiver_(name, reinterpret_cast<const std::uint8_t*>(arena_.get() + bytes.offset),
              arenaSize_ - bytes.offset);
    arenaSize_ = bytes.offset;
    value.streamed = true;
  }
  bytes.size = arenaSize_ - bytes.offset;
}

LogDecoder::Span LogDecoder::readShortText(std::uint8_t maxLength, const char* what) {
  const std::uint8_t length = byte(what);
  if (length > maxLength) {
    fail(lastBytePosition(), std::string("expected the length of ") + what + " (at most " +
                                 std::to_string(maxLength) + " bytes), found " + hexByte(length));
  }
  return readBytes(length, what);
}

LogDecoder::Span LogDecoder::readBytes(std::size_t n, const char* what) {
  Span span{arenaSize_, n};
  char* out = grow(n);
  while (n > 0) {
    std::int32_t available = file_.available();
    if (available == 0) {
      if (file_.atEnd()) failEnd(what);
      available = file_.available();
    }
    const std::size_t take = n < static_cast<std::size_t>(available) ? n : available;
    std::memcpy(out, file_.peek(), take);
    file_.consume(static_cast<std::int32_t>(take));
    out += take;
    n -= take;
  }
  arenaSize_ += span.size;
  return span;
}

char* LogDecoder::grow(std::size_t n) {
  if (arenaCapacity_ - arenaSize_ < n) {
    std::size_t capacity = arenaCapacity_ ? arenaCapacity_ : 4096;
    while (capacity - arenaSize_ < n) capacity *= 2;
    std::unique_ptr<char[]> bigger(new char[capacity]);
    if (arenaSize_) std::memcpy(bigger.get(), arena_.get(), arenaSize_);
    arena_ = std::move(bigger);
    arenaCapacity_ = capacity;
  }
  return arena_.get() + arenaSize_;
}

void LogDecoder::resolveViews() {
  const char* base = arena_.get();
  auto view = [base](const Span& s) { return std::string_view(base + s.offset, s.size); };
  if (event_.kind == ChangeEvent::Kind::kSql) {
    event_.sqlText = view(relationSpan_);
    return;
  }
  event_.relation = view(relationSpan_);
  for (std::size_t i = 0; i < event_.fields.size(); ++i) {
    FieldChange& f = event_.fields[i];
    f.name = view(spans_[i].name);
    f.before.bytes = view(spans_[i].before);
    f.after.bytes = view(spans_[i].after);
  }
}

template <int N>
std::uint64_t LogDecoder::number(const char* what) {
  std::uint64_t value = 0;
  if (file_.available() >= N) {
    const std::uint8_t* p = file_.peek();
    for (int i = 0; i < N; ++i) value |= static_cast<std::uint64_t>(p[i]) << (8 * i);
    file_.consume(N);
    return value;
  }
  // The writer splits numbers between blocks at any byte.
  for (int i = 0; i < N; ++i) value |= static_cast<std::uint64_t>(byte(what)) << (8 * i);
  return value;
}

std::uint8_t LogDecoder::byteAcrossBlocks(const char* what) {
  if (file_.atEnd()) failEnd(what);
  return file_.getByte();
}

std::int64_t LogDecoder::lastBytePosition() {
  // At the end of a block's data the reader already counts the block's 4-byte trailer.
  const std::int64_t next = file_.getPosition();
  return file_.available() > 0 ? next - 1 : next - 5;
}

void LogDecoder::fail(std::int64_t position, const std::string& reason) const {
  throw LogFormatError(path_, position, reason);
}

void LogDecoder::failByte(const char* expected, std::uint8_t found) {
  fail(lastBytePosition(), std::string("expected ") + expected + ", found " + hexByte(found));
}

void LogDecoder::failEnd(const char* expected) {
  fail(file_.getPosition(), std::string("the log ends where it should hold ") + expected);
}
