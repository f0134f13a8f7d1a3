// Field values: a value marker (0xFD new, 0xFE old), then 99 for null, or the type code and the
// payload. Values go straight from the server's memory into the block buffer; blob and array
// contents are copied piece by piece as the server delivers them.
#include <cstring>

#include "../blockfile/ReplException.h"
#include "../plugin/ReplStatus.h"
#include "IReplRecord.h"
#include "ReplTransaction.h"

namespace {

constexpr std::uint8_t kOldValue = 0xFE;
constexpr std::uint8_t kNewValue = 0xFD;
constexpr std::uint8_t kNull = 99;
constexpr std::uint32_t kUnrecordableType = 336330778;  // isc_gbak_unk_type
constexpr std::int32_t kMaxTextLength = 65535;
// The largest piece a 16-bit length can describe.
constexpr unsigned kBlobPiece = 65535;

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

}  // namespace

void ReplTransaction::writeFieldValue(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                                      Firebird::ITransaction* transaction,
                                      Firebird::IReplField* cursor, bool old) {
  const std::uint32_t type = cursor->getType();
  if (type == 0) return;
  // Only new blob and array contents are recorded; an old one leaves no trace at all.
  if (isBlobType(type) && old) return;
  putByte(old ? kOldValue : kNewValue);
  const std::int32_t length = cursor->getLength();
  if (cursor->isNull()) {
    putByte(kNull);
    return;
  }
  putByte(static_cast<std::uint8_t>(type));

  // A text's length is written in 16 bits; a longer one is refused rather than written with a
  // length that disagrees with its bytes.
  auto refuseLongText = [&](std::size_t n) {
    if (n <= static_cast<std::size_t>(kMaxTextLength)) return false;
    ReplStatus::reportText(status, "CDC error: Text value longer than 65535 bytes");
    return true;
  };

  switch (type) {
    case 1: {  // fixed-length text: trailing pad bytes of its character set are dropped
      const std::int32_t charSet = cursor->getCharSet();
      const std::uint8_t pad = charSet == 1 ? 0x00 : 0x20;
      const auto* data = static_cast<const std::uint8_t*>(cursor->getData());
      std::size_t n = length > 0 ? static_cast<std::size_t>(length) : 0;
      while (n > 0 && data[n - 1] == pad) --n;
      if (refuseLongText(n)) return;
      putByte(static_cast<std::uint8_t>(charSet));
      putInt16(static_cast<std::uint16_t>(n));
      putBytes(data, static_cast<std::int32_t>(n));
      return;
    }
    case 2: {  // zero-terminated text
      const std::int32_t charSet = cursor->getCharSet();
      const char* data = static_cast<const char*>(cursor->getData());
      const std::size_t n = std::strlen(data);
      if (refuseLongText(n)) return;
      putByte(static_cast<std::uint8_t>(charSet));
      putInt16(static_cast<std::uint16_t>(n));
      putBytes(data, static_cast<std::int32_t>(n));
      return;
    }
    case 3: {  // varying text: its own 2-byte length, then the bytes
      putByte(static_cast<std::uint8_t>(cursor->getCharSet()));
      const auto* data = static_cast<const std::uint8_t*>(cursor->getData());
      const std::uint16_t n = load<std::uint16_t>(data);
      putInt16(n);
      putBytes(data + 2, n);
      return;
    }
    case 8:
      putInt16(static_cast<std::uint16_t>(cursor->getScale()));
      putInt16(load<std::uint16_t>(cursor->getData()));
      return;
    case 9:
      putInt16(static_cast<std::uint16_t>(cursor->getScale()));
      putInt32(load<std::uint32_t>(cursor->getData()));
      return;
    case 11:
      putDouble(static_cast<double>(load<float>(cursor->getData())));
      return;
    case 12:
      putDouble(load<double>(cursor->getData()));
      return;
    case 14:
    case 15:
      putInt32(load<std::uint32_t>(cursor->getData()));
      return;
    case 16: {  // date, then time, as the server holds them
      const auto* words = static_cast<const std::uint8_t*>(cursor->getData());
      putInt32Pair(load<std::uint32_t>(words), load<std::uint32_t>(words + 4));
      return;
    }
    case 17:
    case 18:
      copyBlob(status, attachment, transaction, cursor->getData());
      return;
    case 19:
      putInt16(static_cast<std::uint16_t>(cursor->getScale()));
      putInt64(load<std::uint64_t>(cursor->getData()));
      return;
    case 21:
      putByte(*static_cast<const std::uint8_t*>(cursor->getData()));
      return;
    default: {
      const intptr_t vector[] = {isc_arg_gds, static_cast<intptr_t>(kUnrecordableType),
                                 isc_arg_number, static_cast<intptr_t>(type)};
      status->setErrors2(4, vector);
      return;
    }
  }
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
