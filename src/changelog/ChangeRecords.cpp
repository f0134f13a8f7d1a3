// The record layouts. Every record begins with its tag byte and goes straight into the block
// writer; block edges fall wherever the stream happens to be.
#include <cstring>

#include "../blockfile/ReplException.h"
#include "../plugin/ReplStatus.h"
#include "ReplTransaction.h"

namespace {

constexpr std::uint8_t kSqlTag = 0x53;  // 'S'
constexpr std::uint8_t kInt64Type = 19;
// A short text carries its length in one byte.
constexpr std::size_t kMaxStatementLength = 255;

const char kAlreadyCommitted[] = "CDC error: Transaction is already committed";

}  // namespace

void ReplTransaction::writeRecordName(const char* text) {
  putByte(0x00);
  const std::size_t length = text ? std::strlen(text) : 0;
  putByte(static_cast<std::uint8_t>(length));
  putBytes(text, static_cast<std::int32_t>(length));
}

std::int32_t ReplTransaction::executeSql(Firebird::IStatus* status, const char* sql,
                                         std::int64_t number) {
  if (committed) return ReplStatus::reportText(status, kAlreadyCommitted);
  // Checked before anything is written: a length byte must never disagree with the text.
  if (sql && std::strlen(sql) > kMaxStatementLength)
    return ReplStatus::reportText(status, "CDC error: Statement text longer than 255 bytes");
  try {
    putByte(kSqlTag);
    writeRecordName(sql);
    // Laid out like the body of an int64 field value: type code, scale 0, the number.
    putByte(kInt64Type);
    putInt16(0);
    putInt64(static_cast<std::uint64_t>(number));
    return 0;
  } catch (const ReplException& e) {
    return ReplStatus::reportException(status, e);
  }
}

std::int32_t ReplTransaction::insertRecord(Firebird::IStatus*, Firebird::IAttachment*,
                                           Firebird::ITransaction*, Firebird::IReplRecord*) {
  return 0;
}

std::int32_t ReplTransaction::updateRecord(Firebird::IStatus*, Firebird::IAttachment*,
                                           Firebird::ITransaction*, Firebird::IReplRecord*,
                                           Firebird::IReplRecord*) {
  return 0;
}

std::int32_t ReplTransaction::deleteRecord(Firebird::IStatus*, Firebird::IAttachment*,
                                           Firebird::ITransaction*, Firebird::IReplRecord*) {
  return 0;
}
