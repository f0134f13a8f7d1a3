// The record layouts. Every record begins with its tag byte and goes straight into the block
// writer; block edges fall wherever the stream happens to be.
#include <cstring>

#include "../blockfile/ReplException.h"
#include "../plugin/ReplStatus.h"
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

// Whether the status holds an error after a field. The status can change only where a field value
// called into the server or refused the value, so it is read after those fields, and after the
// first field in case it came in with an error: the same answers as reading it after every field.
bool errorAfterField(Firebird::IStatus* status, bool touched, bool& tested) {
  const bool read = touched || !tested;
  tested = true;
  return read && (status->getState() & Firebird::IStatus::STATE_ERRORS);
}

}  // namespace

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
  if (!name || !*name) return NameResult::kEmpty;
  // Measured and copied in one pass, right in the block buffer. A name found too long leaves
  // nothing behind: the bytes copied so far lie beyond the write position and are never counted.
  if (std::uint8_t* out = room(static_cast<std::int32_t>(kMaxNameLength) + 2)) {
    std::size_t n = 0;
    for (; name[n] != '\0' && n <= kMaxNameLength; ++n)
      out[1 + n] = static_cast<std::uint8_t>(name[n]);
    if (n > kMaxNameLength) return NameResult::kTooLong;
    out[0] = static_cast<std::uint8_t>(n);
    advance(static_cast<std::int32_t>(n) + 1);
    return NameResult::kWritten;
  }
  // Near the end of a block the name goes through the put operations, which flush on the way.
  const std::size_t n = std::strlen(name);
  if (n > kMaxNameLength) return NameResult::kTooLong;
  putByte(static_cast<std::uint8_t>(n));
  putBytes(name, static_cast<std::int32_t>(n));
  return NameResult::kWritten;
}

std::int32_t ReplTransaction::insertRecord(Firebird::IStatus* status,
                                           Firebird::IAttachment* attachment,
                                           Firebird::ITransaction* transaction,
                                           Firebird::IReplRecord* record) {
  return writeRowRecord(status, attachment, transaction, record, kInsertTag, false);
}

std::int32_t ReplTransaction::deleteRecord(Firebird::IStatus* status,
                                           Firebird::IAttachment* attachment,
                                           Firebird::ITransaction* transaction,
                                           Firebird::IReplRecord* record) {
  return writeRowRecord(status, attachment, transaction, record, kDeleteTag, true);
}

std::int32_t ReplTransaction::writeRowRecord(Firebird::IStatus* status,
                                             Firebird::IAttachment* attachment,
                                             Firebird::ITransaction* transaction,
                                             Firebird::IReplRecord* record, std::uint8_t tag,
                                             bool old) {
  if (committed) return ReplStatus::reportText(status, kAlreadyCommitted);
  if (!record) return ReplStatus::reportText(status, kNoRowImage);
  const char* relation = record->getName();
  const std::size_t length = lengthOf(relation);
  if (length > kMaxNameLength) return ReplStatus::reportText(status, kLongRelation);
  Firebird::IReplField* cursor = record->getFields();
  if (!cursor) return ReplStatus::reportText(status, kNoCursor);
  try {
    putByte(tag);
    writeRecordName(relation, length);
    bool tested = false;
    std::uint32_t fields = 0;
    for (; cursor->isValid(); cursor->moveNext()) {
      if (++fields > kMaxFields) return ReplStatus::reportText(status, kTooManyFields);
      const std::uint32_t type = cursor->getType();
      if (type == 0) continue;
      // A name too long is found before anything of its entry is written; the record stays
      // unfinished. A field without a name leaves no bytes at all.
      const NameResult named = writeFieldName(cursor->getName());
      if (named == NameResult::kTooLong) return ReplStatus::reportText(status, kLongField);
      if (named == NameResult::kEmpty) continue;
      const bool touched = writeFieldValue(status, attachment, transaction, cursor, type, old);
      if (errorAfterField(status, touched, tested)) return ReplStatus::firstErrorCode(status);
    }
    putByte(kEndOfRecord);
    return 0;
  } catch (const ReplException& e) {
    return ReplStatus::reportException(status, e);
  }
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
      const NameResult named = writeFieldName(newCursor->getName());
      if (named == NameResult::kTooLong) return ReplStatus::reportText(status, kLongField);
      if (named == NameResult::kEmpty) continue;
      const bool touched =
          oldCursor->isValid() &&
          writeFieldValue(status, attachment, transaction, oldCursor, oldCursor->getType(), true);
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
