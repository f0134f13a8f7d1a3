// The record layouts and their field values. Every record begins with its tag byte and goes
// straight into the block writer; block edges fall wherever the stream happens to be. A field
// value is a value marker (0xFD new, 0xFE old), then 99 for null, or the type code and the payload.
// Values go straight from the server's memory into the block buffer; blob and array contents are
// copied piece by piece as the server delivers them.
//
// The record loops, the names and the values of the common types are one stretch of inlined code:
// a record of ten fields spends as much time in calls and their set-up as in storing its bytes.
#include <cstring>

#include "../blockfile/ReplException.h"
#include "../status/ReplStatus.h"
#include "IReplRecord.h"
#include "ReplTransaction.h"

namespace {

constexpr std::uint8_t kInsertTag = 0x49;  // 'I'
constexpr std::uint8_t kDeleteTag = 0x44;  // 'D'
constexpr std::uint8_t kUpdateTag = 0x55;  // 'U'
constexpr std::uint8_t kSqlTag = 0x53;     // 'S'
constexpr std::uint8_t kEndOfRecord = 0xFF;
constexpr std::uint8_t kInt64Type = 19;

// A short text carries its length in one byte. A name's length byte must also stay below the value
// markers 0xFD and 0xFE and the end byte 0xFF, which may stand where a name's length begins; 252
// bytes is also the longest identifier a server hands over (63 characters of 4 bytes).
constexpr std::size_t kMaxNameLength = 252;
constexpr std::size_t kMaxStatementLength = 255;

const char kAlreadyCommitted[] = "CDC error: Transaction is already committed";
const char kLongRelation[] = "CDC error: Relation name longer than 252 bytes";
const char kLongField[] = "CDC error: Field name longer than 252 bytes";
const char kNoRowImage[] = "CDC error: No row image";
const char kNoCursor[] = "CDC error: Row image without a field cursor";
const char kTooManyFields[] = "CDC error: Row image with more than 65535 fields";
// No relation has more fields than this; a cursor that goes on is refused rather than followed.
constexpr std::uint32_t kMaxFields = 65535;

std::size_t lengthOf(const char* text) { return text ? std::strlen(text) : 0; }

// Bytes that copyName may store past a name's end.
constexpr std::size_t kNameSlack = 8;

// Copies the name up to its terminator to out and returns its length, or stops once it is longer
// than kMaxNameLength and returns a larger number. Eight bytes at a time where a read of eight
// cannot cross into the next page (the smallest page is 4 KiB), so it never touches memory past
// the terminator's page, as the C library's string functions read; the address and thread
// sanitizers cannot tell such a read from an overrun or a race and are kept out of this function.
// Stores up to kNameSlack bytes past the end of the name.
__attribute__((no_sanitize("address", "thread"))) inline std::size_t copyName(const char* name,
                                                                              std::uint8_t* out) {
  std::size_t n = 0;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  constexpr std::uint64_t kOnes = 0x0101010101010101u;
  constexpr std::uint64_t kHighs = 0x8080808080808080u;
  while ((reinterpret_cast<std::uintptr_t>(name + n) & 4095) <= 4096 - 8) {
    std::uint64_t word;
    std::memcpy(&word, name + n, 8);
    std::memcpy(out + n, &word, 8);
    // The lowest byte flagged here is the first zero byte; flags above it may be false.
    const std::uint64_t zeros = (word - kOnes) & ~word & kHighs;
    if (zeros) return n + (static_cast<unsigned>(__builtin_ctzll(zeros)) >> 3);
    n += 8;
    if (n > kMaxNameLength) return n;
  }
#endif
  for (; name[n] != '\0' && n <= kMaxNameLength; ++n) out[n] = static_cast<std::uint8_t>(name[n]);
  return n;
}

constexpr std::uint8_t kOldValue = 0xFE;
constexpr std::uint8_t kNewValue = 0xFD;
constexpr std::uint8_t kNull = 99;
constexpr std::uint32_t kUnrecordableType = 336330778;  // isc_gbak_unk_type
constexpr std::int32_t kMaxTextLength = 65535;
// The largest piece a 16-bit length can describe.
constexpr unsigned kBlobPiece = 65535;
const char kNoData[] = "CDC error: Field value without data";
// Type codes below 22 that the server's descriptors know but a log cannot hold.
constexpr std::uint32_t kRefusedTypes =
    1u << 4 | 1u << 5 | 1u << 6 | 1u << 7 | 1u << 10 | 1u << 13 | 1u << 20;

// One buffer per server thread that reads blobs: never the whole blob in memory, nothing allocated
// per value, and no 64 KiB on the stack of a server thread.
thread_local unsigned char blobBuffer[kBlobPiece];

template <typename T>
T load(const void* data) {
  T value;
  std::memcpy(&value, data, sizeof value);
  return value;
}

bool isBlobType(std::uint32_t type) { return type == 17 || type == 18; }

std::uint64_t bitsOf(double d) { return load<std::uint64_t>(&d); }

// Whether the status holds an error after a field. The status can change only where a field value
// called into the server or refused the value, so it is read after those fields, and after the
// first field in case it came in with an error: the same answers as reading it after every field.
bool errorAfterField(Firebird::IStatus* status, bool touched, bool& tested) {
  const bool read = touched || !tested;
  tested = true;
  return read && (status->getState() & Firebird::IStatus::STATE_ERRORS);
}

}  // namespace

#define FBCDC_INLINE inline __attribute__((always_inline))

// The fixed part of a value (marker, type byte, and a scale and number or a text's character set
// and length: at most 16 bytes), stored with one bounds check instead of one per byte. Normally it
// is assembled right in the block buffer (InPlace, whose position the compiler keeps in a
// register); near the end of a block it is gathered on the stack and appended like any byte run
// (Gathered). put() appends what was stored; the bytes are those the put operations would store
// one by one.
class ReplTransaction::InPlace {
 public:
  static constexpr std::int32_t kLargest = 16;

  // Stores from room + used on; the used bytes count as stored.
  InPlace(std::uint8_t* room, std::size_t used) : start_(room), p_(room + used) {}
  void byte(std::uint8_t b) { *p_++ = b; }
  // The low Width bytes of v, least significant first.
  template <int Width>
  void number(std::uint64_t v) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::memcpy(p_, &v, Width);  // the machine's own order is the log's
#else
    for (int i = 0; i < Width; ++i) p_[i] = static_cast<std::uint8_t>(v >> (8 * i));
#endif
    p_ += Width;
  }
  void put(ReplTransaction& log) { log.advance(static_cast<std::int32_t>(p_ - start_)); }

 private:
  std::uint8_t* start_;
  std::uint8_t* p_;
};

class ReplTransaction::Gathered {
 public:
  void byte(std::uint8_t b) { bytes_[size_++] = b; }
  template <int Width>
  void number(std::uint64_t v) {
    for (int i = 0; i < Width; ++i) bytes_[size_ + i] = static_cast<std::uint8_t>(v >> (8 * i));
    size_ += Width;
  }
  void put(ReplTransaction& log) { log.putBytes(bytes_, size_); }

 private:
  std::uint8_t bytes_[InPlace::kLargest];
  std::int32_t size_ = 0;
};

template <typename Out>
FBCDC_INLINE bool ReplTransaction::encodeValue(Out& value, Firebird::IStatus* status,
                                               Firebird::IAttachment* attachment,
                                               Firebird::ITransaction* transaction,
                                               Firebird::IReplField* cursor, std::uint32_t type,
                                               bool old) {
  // The marker and type byte are stored after the calls that come before them: the position in
  // the block buffer then need not be kept across those calls.
  const std::uint8_t marker = old ? kOldValue : kNewValue;
  if (cursor->isNull()) {
    value.byte(marker);
    value.byte(kNull);
    value.put(*this);
    return false;
  }
  auto head = [&] {
    value.byte(marker);
    value.byte(static_cast<std::uint8_t>(type));
  };

  // A text is its character set, a 16-bit length and the bytes. One too long for that length is
  // refused after its marker and type rather than written with a length that disagrees with it.
  auto putText = [&](std::int32_t charSet, const void* data, std::size_t n) {
    if (n > static_cast<std::size_t>(kMaxTextLength)) {
      value.put(*this);
      ReplStatus::reportText(status, "CDC error: Text value longer than 65535 bytes");
      return true;
    }
    value.byte(static_cast<std::uint8_t>(charSet));
    value.template number<2>(n);
    value.put(*this);
    putBytes(data, static_cast<std::int32_t>(n));
    return false;
  };

  // What a server should never hand over is refused like a type that cannot be recorded: after
  // the marker and type byte, with the record left unfinished and the reason in the status.
  auto refuse = [&](const char* text) {
    value.put(*this);
    ReplStatus::reportText(status, text);
    return true;
  };
  if (type > 21 || ((1u << type) & kRefusedTypes)) {
    head();
    value.put(*this);
    const intptr_t vector[] = {isc_arg_gds, static_cast<intptr_t>(kUnrecordableType),
                               isc_arg_number, static_cast<intptr_t>(type)};
    status->setErrors2(4, vector);
    return true;
  }
  // An empty fixed-length text needs no bytes; every other value does.
  const void* data = cursor->getData();
  if (!data && type != 1) {
    head();
    return refuse(kNoData);
  }

  switch (type) {
    case 1: {  // fixed-length text: trailing pad bytes of its character set are dropped
      const std::int32_t charSet = cursor->getCharSet();
      const std::uint8_t pad = charSet == 1 ? 0x00 : 0x20;
      const auto* bytes = static_cast<const std::uint8_t*>(data);
      const std::int32_t length = cursor->getLength();  // only fixed-length text needs it
      head();
      if (length < 0) return refuse("CDC error: Fixed-length text with a negative length");
      std::size_t n = static_cast<std::size_t>(length);
      if (n > 0 && !bytes) return refuse(kNoData);
      while (n > 0 && bytes[n - 1] == pad) --n;
      return putText(charSet, bytes, n);
    }
    case 2: {  // zero-terminated text
      const std::int32_t charSet = cursor->getCharSet();
      head();
      const char* text = static_cast<const char*>(data);
      return putText(charSet, text, std::strlen(text));
    }
    case 3: {  // varying text: its own 2-byte length, then the bytes; no pad is removed
      const std::int32_t charSet = cursor->getCharSet();
      head();
      const auto* bytes = static_cast<const std::uint8_t*>(data);
      return putText(charSet, bytes + 2, load<std::uint16_t>(bytes));
    }
    case 8: {
      const std::int32_t scale = cursor->getScale();
      head();
      value.template number<2>(static_cast<std::uint16_t>(scale));
      value.template number<2>(load<std::uint16_t>(data));
      break;
    }
    case 9: {
      const std::int32_t scale = cursor->getScale();
      head();
      value.template number<2>(static_cast<std::uint16_t>(scale));
      value.template number<4>(load<std::uint32_t>(data));
      break;
    }
    case 11:
      head();
      value.template number<8>(bitsOf(static_cast<double>(load<float>(data))));
      break;
    case 12:
      head();
      value.template number<8>(load<std::uint64_t>(data));
      break;
    case 14:
    case 15:
      head();
      value.template number<4>(load<std::uint32_t>(data));
      break;
    case 16:  // date, then time, as the server holds them
      head();
      value.template number<8>(load<std::uint64_t>(data));
      break;
    case 19: {
      const std::int32_t scale = cursor->getScale();
      head();
      value.template number<2>(static_cast<std::uint16_t>(scale));
      value.template number<8>(load<std::uint64_t>(data));
      break;
    }
    case 21:
      head();
      value.byte(*static_cast<const std::uint8_t*>(data));
      break;
    default:  // 17 and 18: blob and array contents, read back from the server
      head();
      if (!attachment || !transaction)
        return refuse("CDC error: Blob or array value without attachment or transaction");
      value.put(*this);
      copyBlob(status, attachment, transaction, data);
      return true;
  }
  value.put(*this);
  return false;
}

FBCDC_INLINE bool ReplTransaction::writeFieldValue(Firebird::IStatus* status,
                                                   Firebird::IAttachment* attachment,
                                                   Firebird::ITransaction* transaction,
                                                   Firebird::IReplField* cursor, std::uint32_t type,
                                                   bool old) {
  if (type == 0) return false;
  // Only new blob and array contents are recorded; an old one leaves no trace at all.
  if (isBlobType(type) && old) return false;
  if (std::uint8_t* here = room(InPlace::kLargest)) {
    InPlace value(here, 0);
    return encodeValue(value, status, attachment, transaction, cursor, type, old);
  }
  return writeGatheredValue(status, attachment, transaction, cursor, type, old);
}

bool ReplTransaction::writeGatheredValue(Firebird::IStatus* status,
                                         Firebird::IAttachment* attachment,
                                         Firebird::ITransaction* transaction,
                                         Firebird::IReplField* cursor, std::uint32_t type,
                                         bool old) {
  Gathered value;
  return encodeValue(value, status, attachment, transaction, cursor, type, old);
}

void ReplTransaction::copyBlob(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                               Firebird::ITransaction* transaction, const void* id) {
  // Every error the server reports lands in the caller's status, which the record operation tests.
  Firebird::CheckStatusWrapper wrapper(status);
  ISC_QUAD blobId = load<ISC_QUAD>(id);
  Firebird::IBlob* blob = attachment->openBlob(&wrapper, transaction, &blobId, 0, nullptr);
  if (ReplStatus::hasError(wrapper)) return;

  try {
    for (;;) {
      unsigned delivered = 0;
      const int result = blob->getSegment(&wrapper, kBlobPiece, blobBuffer, &delivered);
      // The engine may report a failed read with the result 0 and the error in the status only
      // (a blob closed under the reader does), so the status decides as well as the result.
      if (result == Firebird::IStatus::RESULT_ERROR || ReplStatus::hasError(wrapper)) {
        blob->release();  // given up without close; no terminator, the record stays unfinished
        return;
      }
      if (result == Firebird::IStatus::RESULT_NO_DATA) break;
      // A length of 0 would end the list, so empty deliveries are not written.
      if (delivered > 0) {
        putInt16(static_cast<std::uint16_t>(delivered));
        putBytes(blobBuffer, static_cast<std::int32_t>(delivered));
      }
    }
  } catch (const ReplException&) {
    // The log could not take the piece; the blob is still ours to give up.
    blob->release();
    throw;
  }

  blob->close(&wrapper);
  if (ReplStatus::hasError(wrapper)) {
    // A close that failed leaves the interface with us.
    blob->release();
    return;
  }
  // No release here: a successful close already gave up our reference (checked against the
  // embedded engine, where a release after close finds the last reference gone).
  putInt16(0);
}

void ReplTransaction::writeRecordName(const char* text, std::size_t length) {
  putByte(0x00);
  putByte(static_cast<std::uint8_t>(length));
  putBytes(text, static_cast<std::int32_t>(length));
}

std::int32_t ReplTransaction::executeSql(Firebird::IStatus* status, const char* sql,
                                         std::int64_t number) {
  if (committed) return ReplStatus::reportText(status, kAlreadyCommitted);
  // Checked before anything is written: a length byte must never disagree with the text.
  const std::size_t length = lengthOf(sql);
  if (length > kMaxStatementLength)
    return ReplStatus::reportText(status, "CDC error: Statement text longer than 255 bytes");
  try {
    putByte(kSqlTag);
    writeRecordName(sql, length);
    // Laid out like the body of an int64 field value: type code, scale 0, the number.
    putByte(kInt64Type);
    putInt16(0);
    putInt64(static_cast<std::uint64_t>(number));
    return 0;
  } catch (const ReplException& e) {
    return ReplStatus::reportException(status, e);
  }
}

ReplTransaction::NameResult ReplTransaction::writeFieldName(const char* name) {
  const std::size_t n = std::strlen(name);
  if (n > kMaxNameLength) return NameResult::kTooLong;
  putByte(static_cast<std::uint8_t>(n));
  putBytes(name, static_cast<std::int32_t>(n));
  return NameResult::kWritten;
}

FBCDC_INLINE ReplTransaction::NameResult ReplTransaction::writeFieldEntry(
    Firebird::IStatus* status, Firebird::IAttachment* attachment,
    Firebird::ITransaction* transaction, const char* name, Firebird::IReplField* cursor,
    std::uint32_t type, bool old, bool& touched) {
  touched = false;
  if (!name || !*name) return NameResult::kEmpty;
  std::uint8_t* here =
      room(static_cast<std::int32_t>(kMaxNameLength + kNameSlack + 2 + InPlace::kLargest));
  if (!here) {
    // Near the end of a block the entry goes through the put operations, which flush on the way.
    const NameResult named = writeFieldName(name);
    if (named == NameResult::kWritten && cursor)
      touched = writeFieldValue(status, attachment, transaction, cursor, type, old);
    return named;
  }
  // The name is measured while it is copied; one found too long leaves nothing behind: the bytes
  // copied so far lie beyond the write position and are never counted.
  const std::size_t n = copyName(name, here + 1);
  if (n > kMaxNameLength) return NameResult::kTooLong;
  here[0] = static_cast<std::uint8_t>(n);
  InPlace entry(here, n + 1);
  // Only new blob and array contents are recorded; an old one leaves no trace at all.
  if (!cursor || type == 0 || (isBlobType(type) && old))
    entry.put(*this);
  else
    touched = encodeValue(entry, status, attachment, transaction, cursor, type, old);
  return NameResult::kWritten;
}

template <bool old>
std::int32_t ReplTransaction::writeRowRecord(Firebird::IStatus* status,
                                             Firebird::IAttachment* attachment,
                                             Firebird::ITransaction* transaction,
                                             Firebird::IReplRecord* record, std::uint8_t tag) {
  if (committed) return ReplStatus::reportText(status, kAlreadyCommitted);
  if (!record) return ReplStatus::reportText(status, kNoRowImage);
  const char* relation = record->getName();
  // The tag and the name go right into the block buffer where they fit, the name measured while
  // it is copied; nothing counts as written before the checks below have passed.
  std::uint8_t* here =
      relation ? room(static_cast<std::int32_t>(kMaxNameLength + kNameSlack) + 3) : nullptr;
  const std::size_t length = here ? copyName(relation, here + 3) : lengthOf(relation);
  if (length > kMaxNameLength) return ReplStatus::reportText(status, kLongRelation);
  Firebird::IReplField* cursor = record->getFields();
  if (!cursor) return ReplStatus::reportText(status, kNoCursor);
  try {
    if (here) {
      here[0] = tag;
      here[1] = 0x00;
      here[2] = static_cast<std::uint8_t>(length);
      advance(static_cast<std::int32_t>(length) + 3);
    } else {
      putByte(tag);
      writeRecordName(relation, length);
    }
    bool tested = false;
    std::uint32_t fields = 0;
    for (; cursor->isValid(); cursor->moveNext()) {
      if (++fields > kMaxFields) return ReplStatus::reportText(status, kTooManyFields);
      const std::uint32_t type = cursor->getType();
      if (type == 0) continue;
      // A name too long is found before anything of its entry is written; the record stays
      // unfinished. A field without a name leaves no bytes at all.
      bool touched;
      const NameResult named = writeFieldEntry(status, attachment, transaction, cursor->getName(),
                                               cursor, type, old, touched);
      if (named == NameResult::kTooLong) return ReplStatus::reportText(status, kLongField);
      if (named == NameResult::kEmpty) continue;
      if (errorAfterField(status, touched, tested)) return ReplStatus::firstErrorCode(status);
    }
    putByte(kEndOfRecord);
    return 0;
  } catch (const ReplException& e) {
    return ReplStatus::reportException(status, e);
  }
}

std::int32_t ReplTransaction::insertRecord(Firebird::IStatus* status,
                                           Firebird::IAttachment* attachment,
                                           Firebird::ITransaction* transaction,
                                           Firebird::IReplRecord* record) {
  return writeRowRecord<false>(status, attachment, transaction, record, kInsertTag);
}

std::int32_t ReplTransaction::deleteRecord(Firebird::IStatus* status,
                                           Firebird::IAttachment* attachment,
                                           Firebird::ITransaction* transaction,
                                           Firebird::IReplRecord* record) {
  return writeRowRecord<true>(status, attachment, transaction, record, kDeleteTag);
}

std::int32_t ReplTransaction::updateRecord(Firebird::IStatus* status,
                                           Firebird::IAttachment* attachment,
                                           Firebird::ITransaction* transaction,
                                           Firebird::IReplRecord* oldRecord,
                                           Firebird::IReplRecord* newRecord) {
  if (committed) return ReplStatus::reportText(status, kAlreadyCommitted);
  if (!oldRecord || !newRecord) return ReplStatus::reportText(status, kNoRowImage);
  // The relation name comes from the new image; the old image's name is not asked for.
  const char* relation = newRecord->getName();
  const std::size_t length = lengthOf(relation);
  if (length > kMaxNameLength) return ReplStatus::reportText(status, kLongRelation);
  Firebird::IReplField* newCursor = newRecord->getFields();
  Firebird::IReplField* oldCursor = oldRecord->getFields();
  if (!newCursor || !oldCursor) return ReplStatus::reportText(status, kNoCursor);
  try {
    putByte(kUpdateTag);
    writeRecordName(relation, length);
    // The cursors move in lockstep: the old field at position k gives the old value of the new
    // field at position k, whatever its name. Only the new image decides when the record ends.
    bool tested = false;
    std::uint32_t fields = 0;
    for (; newCursor->isValid(); newCursor->moveNext(), oldCursor->moveNext()) {
      if (++fields > kMaxFields) return ReplStatus::reportText(status, kTooManyFields);
      const std::uint32_t type = newCursor->getType();
      if (type == 0) continue;
      const char* name = newCursor->getName();
      if (!name || !*name) continue;
      // The name and the old value form one entry; an old image that ended early gives none.
      Firebird::IReplField* oldField = oldCursor->isValid() ? oldCursor : nullptr;
      bool touched;
      const NameResult named = writeFieldEntry(status, attachment, transaction, name, oldField,
                                               oldField ? oldField->getType() : 0, true, touched);
      if (named == NameResult::kTooLong) return ReplStatus::reportText(status, kLongField);
      if (errorAfterField(status, touched, tested)) return ReplStatus::firstErrorCode(status);
      const bool newTouched =
          writeFieldValue(status, attachment, transaction, newCursor, type, false);
      if (errorAfterField(status, newTouched, tested)) return ReplStatus::firstErrorCode(status);
    }
    putByte(kEndOfRecord);
    return 0;
  } catch (const ReplException& e) {
    return ReplStatus::reportException(status, e);
  }
}
