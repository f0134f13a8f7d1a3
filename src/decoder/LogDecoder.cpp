#include "LogDecoder.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "LogFormatError.h"
#include "ReplException.h"

// The record parser is instantiated for both readers and inlined whole into next(), which is
// therefore defined below it, and so is every operation of the in-place reader: with one of them
// called instead, the reader's address would escape and its position would live in memory.
#define FBCDC_INLINE inline __attribute__((always_inline))

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
const char kNameExpected[] = "a field name length (01 to FC) or the end of the record (FF)";

std::string hexByte(std::uint8_t b) {
  char text[8];
  std::snprintf(text, sizeof text, "%02X", b);
  return text;
}

}  // namespace

// Reads a record from the bytes of the loaded block alone. Running out of bytes, or meeting
// anything unusual (damage, a blob of several pieces), gives up; the record is then read again
// across blocks, which also words every complaint. Giving up is a flag, not an exception: the
// record crossing each block's edge gives up, and a throw costs more than decoding the block's
// other records together.
class LogDecoder::InBlock {
 public:
  InBlock(const LogDecoder& decoder, const std::uint8_t* p, std::int32_t n)
      : start_(p),
        p_(p),
        end_(p + n),
        streamThreshold_(decoder.receiver_ ? decoder.streamThreshold_
                                           : std::numeric_limits<std::uint64_t>::max()) {}

  // False once the reader gave up. Past that point every read yields zeros, which the parser takes
  // for a bad name length and so stops.
  bool ok() const { return ok_; }
  std::int32_t used() const { return static_cast<std::int32_t>(p_ - start_); }

  FBCDC_INLINE std::uint8_t byte(const char*) {
    if (p_ == end_) return giveUp();
    return *p_++;
  }
  template <int N>
  FBCDC_INLINE std::uint64_t number(const char*) {
    if (end_ - p_ < N) return giveUp();
    std::uint64_t value = 0;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::memcpy(&value, p_, N);  // the machine's own order is the log's
#else
    for (int i = 0; i < N; ++i) value |= static_cast<std::uint64_t>(p_[i]) << (8 * i);
#endif
    p_ += N;
    return value;
  }
  FBCDC_INLINE void text(std::size_t n, const char*, std::string_view& view, std::size_t, Slot) {
    if (static_cast<std::size_t>(end_ - p_) < n) {
      giveUp();
      return;
    }
    view = std::string_view(reinterpret_cast<const char*>(p_), n);
    p_ += n;
  }
  // A blob of one piece lies whole in the block; more pieces are reassembled across blocks.
  FBCDC_INLINE void pieces(FieldValue& value, std::size_t field, Slot slot) {
    const auto length = static_cast<std::size_t>(number<2>(nullptr));
    if (length == 0) return;
    if (length > streamThreshold_) {
      giveUp();
      return;
    }
    text(length, nullptr, value.bytes, field, slot);
    value.pieces = 1;
    value.size = length;
    if (number<2>(nullptr) != 0) giveUp();
  }
  FBCDC_INLINE void failByte(const char*, std::uint8_t) { giveUp(); }
  FBCDC_INLINE void failLength(const char*, std::uint8_t, std::uint8_t) { giveUp(); }
  FBCDC_INLINE void fail(const char*) { giveUp(); }

 private:
  FBCDC_INLINE std::uint8_t giveUp() {
    ok_ = false;
    p_ = end_;
    return 0;
  }

  const std::uint8_t* start_;
  const std::uint8_t* p_;
  const std::uint8_t* end_;
  std::uint64_t streamThreshold_;
  bool ok_ = true;
};

// Reads a record through the block reader, loading (and verifying) blocks as it goes, and copies
// its texts into the arena.
class LogDecoder::AcrossBlocks {
 public:
  explicit AcrossBlocks(LogDecoder& decoder) : d_(decoder) {}

  std::uint8_t byte(const char* what) { return d_.byte(what); }
  template <int N>
  std::uint64_t number(const char* what) {
    std::uint64_t value = 0;
    for (int i = 0; i < N; ++i) value |= static_cast<std::uint64_t>(d_.byte(what)) << (8 * i);
    return value;
  }
  void text(std::size_t n, const char* what, std::string_view&, std::size_t field, Slot slot) {
    span(field, slot) = d_.readBytes(n, what);
  }
  void pieces(FieldValue& value, std::size_t field, Slot slot) {
    d_.readPieces(value, field, slot);
  }
  [[noreturn]] void failByte(const char* expected, std::uint8_t found) {
    d_.failByte(expected, found);
  }
  [[noreturn]] void failLength(const char* what, std::uint8_t maxLength, std::uint8_t length) {
    fail(std::string("expected the length of ") + what + " (at most " + std::to_string(maxLength) +
         " bytes), found " + hexByte(length));
  }
  [[noreturn]] void fail(const std::string& reason) { d_.fail(d_.lastBytePosition(), reason); }

  Span& span(std::size_t field, Slot slot) {
    if (slot == Slot::kRelation || slot == Slot::kStatement) return d_.relationSpan_;
    if (d_.spans_.size() <= field) d_.spans_.resize(field + 1);
    FieldSpans& f = d_.spans_[field];
    return slot == Slot::kName ? f.name : slot == Slot::kBefore ? f.before : f.after;
  }

 private:
  LogDecoder& d_;
};

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

FieldChange* LogDecoder::growFields() {
  storage_.emplace_back();
  event_.fields.data_ = storage_.data();
  return storage_.data();
}

void LogDecoder::startEvent() {
  arenaSize_ = 0;
  spans_.clear();
  event_.fields.size_ = 0;
  event_.relation = {};
  event_.sqlText = {};
  event_.sqlNumber = 0;
}

// Every complaint ends the parse where it stands (a return, or a break out of the field loop): the
// block reader's complaints throw, and the in-place reader's end the parse that way.
template <typename In>
FBCDC_INLINE void LogDecoder::readRecord(In& in, std::uint8_t tag) {
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
      return in.failByte(kTagExpected, tag);
  }
  const std::uint8_t zero = in.byte("the 00 byte behind the record tag");
  if (zero != 0) return in.failByte("the 00 byte behind the record tag", zero);
  const bool sql = event_.kind == ChangeEvent::Kind::kSql;
  const char* what = sql ? "the statement text" : "the relation name";
  const std::uint8_t length = in.byte(what);
  const std::uint8_t maxLength = sql ? kMaxStatement : kMaxName;
  if (length > maxLength) return in.failLength(what, maxLength, length);
  if (sql)
    in.text(length, what, event_.sqlText, 0, Slot::kStatement);
  else
    in.text(length, what, event_.relation, 0, Slot::kRelation);
  if (!sql) return readFields(in, event_.kind);
  const std::uint8_t type = in.byte("the statement number's type code 13");
  if (type != kInt64Type) return in.failByte("the statement number's type code 13", type);
  if (in.template number<2>("the statement number's scale") != 0)
    return in.fail("expected the statement number's scale 0000");
  event_.sqlNumber = static_cast<std::int64_t>(in.template number<8>("the statement number"));
}

template <typename In>
FBCDC_INLINE void LogDecoder::readFields(In& in, ChangeEvent::Kind kind) {
  // The field table's place and size stay in registers while the record is read: stores into a
  // field could alias them in memory. A value is read by its kind, so a reused field needs only its
  // name and the kinds of the values its record does not carry set, never a clearing.
  FieldChange* fields = storage_.data();
  std::size_t capacity = storage_.size();
  std::size_t count = 0;
  // Behind a field's values stands the next field's name length or the end byte; a delete entry of
  // a blob or array field is its name alone, so the byte read after a name may be either.
  int pending = -1;
  for (;;) {
    const std::uint8_t length =
        pending >= 0 ? static_cast<std::uint8_t>(pending) : in.byte(kNameExpected);
    pending = -1;
    if (length == kEndOfRecord) break;
    if (length == 0 || length > kMaxName) {
      in.failByte(kNameExpected, length);
      break;
    }
    if (count == capacity) {
      fields = growFields();
      capacity = storage_.size();
    }
    const std::size_t field = count++;
    FieldChange& f = fields[field];
    in.text(length, "a field name", f.name, field, Slot::kName);

    std::uint8_t marker = in.byte("a value marker");
    if (kind == ChangeEvent::Kind::kInsert) {
      f.before.kind = FieldValue::Kind::kAbsent;
      if (marker != kNewValue) {
        in.failByte("the new value marker FD of an insert", marker);
        break;
      }
      readValue(in, f.after, field, Slot::kAfter);
      continue;
    }
    if (marker == kOldValue) {
      readValue(in, f.before, field, Slot::kBefore);
      if (kind == ChangeEvent::Kind::kDelete) {
        f.after.kind = FieldValue::Kind::kAbsent;
        continue;
      }
      marker = in.byte("the new value marker FD");
    } else {
      f.before.kind = FieldValue::Kind::kAbsent;
    }
    if (kind == ChangeEvent::Kind::kUpdate) {
      if (marker != kNewValue) {
        in.failByte("the new value marker FD of an update", marker);
        break;
      }
      readValue(in, f.after, field, Slot::kAfter);
      continue;
    }
    // A delete entry without a value: the byte read is the next name's length or the end byte.
    f.after.kind = FieldValue::Kind::kAbsent;
    if (marker == kNewValue) {
      in.failByte("the old value marker FE of a delete", marker);
      break;
    }
    pending = marker;
  }
  event_.fields.size_ = count;
}

template <typename In>
FBCDC_INLINE void LogDecoder::readValue(In& in, FieldValue& value, std::size_t field, Slot slot) {
  using Kind = FieldValue::Kind;
  const std::uint8_t type = in.byte(kTypeExpected);
  if (type == kNull) {
    value.kind = Kind::kNull;
    return;
  }
  value.typeCode = type;
  switch (type) {
    case 1:
    case 2:
    case 3: {
      value.kind = Kind::kText;
      value.charSet = in.byte("a text's character set");
      const auto length = static_cast<std::size_t>(in.template number<2>("a text's length"));
      in.text(length, "a text's bytes", value.bytes, field, slot);
      return;
    }
    case 8:
      value.kind = Kind::kShort;
      value.scale = static_cast<std::int16_t>(in.template number<2>("a scale"));
      value.integer = static_cast<std::int16_t>(in.template number<2>("a 16-bit integer"));
      return;
    case 9:
      value.kind = Kind::kLong;
      value.scale = static_cast<std::int16_t>(in.template number<2>("a scale"));
      value.integer = static_cast<std::int32_t>(in.template number<4>("a 32-bit integer"));
      return;
    case 19:
      value.kind = Kind::kInt64;
      value.scale = static_cast<std::int16_t>(in.template number<2>("a scale"));
      value.integer = static_cast<std::int64_t>(in.template number<8>("a 64-bit integer"));
      return;
    case 11:
    case 12: {
      value.kind = type == 11 ? Kind::kFloat : Kind::kDouble;
      const std::uint64_t bits = in.template number<8>("a double");
      std::memcpy(&value.real, &bits, sizeof value.real);
      return;
    }
    case 14:
      value.kind = Kind::kDate;
      value.integer = static_cast<std::int32_t>(in.template number<4>("a date"));
      return;
    case 15:
      value.kind = Kind::kTime;
      value.integer = static_cast<std::uint32_t>(in.template number<4>("a time"));
      return;
    case 16:
      value.kind = Kind::kTimestamp;
      value.integer = static_cast<std::int32_t>(in.template number<4>("a timestamp's date"));
      value.time = static_cast<std::uint32_t>(in.template number<4>("a timestamp's time"));
      return;
    case 21:
      value.kind = Kind::kBoolean;
      value.integer = in.byte("a boolean");
      return;
    case 17:
    case 18:
      // The writer never records an old blob or array value.
      if (slot == Slot::kBefore)
        return in.failByte("an old value's type code (a blob or array has none)", type);
      value.kind = type == 17 ? Kind::kBlob : Kind::kArray;
      value.streamed = false;
      value.bytes = {};
      value.size = 0;
      value.pieces = 0;
      in.pieces(value, field, slot);
      return;
    default:
      return in.failByte(kTypeExpected, type);
  }
}

const ChangeEvent& LogDecoder::next() {
  if (finished_) throw std::logic_error("LogDecoder::next: no log open, or its end was read");
  event_.index = nextIndex_;
  event_.position = file_.getPosition();
  startEvent();
  // Most records lie whole in the loaded block and are read in place.
  if (file_.available() > 0 && *file_.peek() != kCommitMarker) {
    InBlock in(*this, file_.peek(), file_.available());
    readRecord(in, in.byte(kTagExpected));
    if (in.ok()) {
      file_.consume(in.used());
      ++nextIndex_;
      return event_;
    }
    startEvent();
  }
  try {
    AcrossBlocks in(*this);
    const std::uint8_t tag = in.byte(kTagExpected);
    if (tag == kCommitMarker) {
      // A published log always holds a record, and its stream ends with the marker.
      if (nextIndex_ == 0)
        fail(event_.position, "the log holds no record before its commit marker");
      if (!file_.atEnd()) fail(file_.getPosition(), "bytes follow the commit marker");
      event_.kind = ChangeEvent::Kind::kEnd;
      finished_ = true;
      return event_;
    }
    readRecord(in, tag);
    resolveViews();
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

void LogDecoder::readPieces(FieldValue& value, std::size_t field, Slot slot) {
  Span& bytes = AcrossBlocks(*this).span(field, slot);
  bytes.offset = arenaSize_;
  for (;;) {
    auto length = static_cast<std::size_t>(byte("a piece length"));
    length |= static_cast<std::size_t>(byte("a piece length")) << 8;
    if (length == 0) break;
    ++value.pieces;
    value.size += length;
    readBytes(length, "a piece of a blob or array");
    if (!receiver_ || value.size <= streamThreshold_) continue;
    // Too long to hold: what was gathered goes to the receiver, and so does every later piece.
    const Span& name = spans_[field].name;
    receiver_(std::string_view(arena_.get() + name.offset, name.size),
              reinterpret_cast<const std::uint8_t*>(arena_.get() + bytes.offset),
              arenaSize_ - bytes.offset);
    arenaSize_ = bytes.offset;
    value.streamed = true;
  }
  bytes.size = arenaSize_ - bytes.offset;
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
  for (std::size_t i = 0; i < event_.fields.size() && i < spans_.size(); ++i) {
    FieldChange& f = storage_[i];
    f.name = view(spans_[i].name);
    f.before.bytes = view(spans_[i].before);
    f.after.bytes = view(spans_[i].after);
  }
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
