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

}  // namespace

// The fixed part of a value (marker, type byte, and a scale and number or a text's character set
// and length: at most 12 bytes), stored with one bounds check instead of one per byte. Normally it
// is assembled right in the block buffer; near the end of a block it is gathered on the stack and
// appended like any byte run. The bytes are those the put operations would store one by one.
class ReplTransaction::ValueBytes {
 public:
  explicit ValueBytes(std::uint8_t* room) : out_(room ? room : spare_) {}
  void byte(std::uint8_t b) { out_[size_++] = b; }
  // The low Width bytes of v, least significant first.
  template <int Width>
  void number(std::uint64_t v) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::memcpy(out_ + size_, &v, Width);  // the machine's own order is the log's
#else
    for (int i = 0; i < Width; ++i) out_[size_ + i] = static_cast<std::uint8_t>(v >> (8 * i));
#endif
    size_ += Width;
  }
  bool inPlace() const { return out_ != spare_; }
  const std::uint8_t* data() const { return out_; }
  std::int32_t size() const { return size_; }

  static constexpr std::int32_t kLargest = 16;

 private:
  std::uint8_t spare_[kLargest];
  std::uint8_t* out_;
  std::int32_t size_ = 0;
};

namespace {}  // namespace

inline void ReplTransaction::put(const ValueBytes& value) {
  if (__builtin_expect(value.inPlace(), 1)) {
    advance(value.size());
  } else {
    putBytes(value.data(), value.size());
  }
}

bool ReplTransaction::writeFieldValue(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                                      Firebird::ITransaction* transaction,
                                      Firebird::IReplField* cursor, std::uint32_t type, bool old) {
  if (type == 0) return false;
  // Only new blob and array contents are recorded; an old one leaves no trace at all.
  if (isBlobType(type) && old) return false;
  ValueBytes value(room(ValueBytes::kLargest));
  value.byte(old ? kOldValue : kNewValue);
  if (cursor->isNull()) {
    value.byte(kNull);
    put(value);
    return false;
  }
  value.byte(static_cast<std::uint8_t>(type));

  // A text is its character set, a 16-bit length and the bytes. One too long for that length is
  // refused after its marker and type rather than written with a length that disagrees with it.
  auto putText = [&](std::int32_t charSet, const void* data, std::size_t n) {
    if (n > static_cast<std::size_t>(kMaxTextLength)) {
      put(value);
      ReplStatus::reportText(status, "CDC error: Text value longer than 65535 bytes");
      return true;
    }
    value.byte(static_cast<std::uint8_t>(charSet));
    value.number<2>(n);
    put(value);
    putBytes(data, static_cast<std::int32_t>(n));
    return false;
  };

  // What a server should never hand over is refused like a type that cannot be recorded: after
  // the marker and type byte, with the record left unfinished and the reason in the status.
  auto refuse = [&](const char* text) {
    put(value);
    ReplStatus::reportText(status, text);
    return true;
  };
  if (type > 21 || ((1u << type) & kRefusedTypes)) {
    put(value);
    const intptr_t vector[] = {isc_arg_gds, static_cast<intptr_t>(kUnrecordableType),
                               isc_arg_number, static_cast<intptr_t>(type)};
    status->setErrors2(4, vector);
    return true;
  }
  // An empty fixed-length text needs no bytes; every other value does.
  const void* data = cursor->getData();
  if (!data && type != 1) return refuse(kNoData);

  switch (type) {
    case 1: {  // fixed-length text: trailing pad bytes of its character set are dropped
      const std::int32_t charSet = cursor->getCharSet();
      const std::uint8_t pad = charSet == 1 ? 0x00 : 0x20;
      const auto* bytes = static_cast<const std::uint8_t*>(data);
      const std::int32_t length = cursor->getLength();  // only fixed-length text needs it
      if (length < 0) return refuse("CDC error: Fixed-length text with a negative length");
      std::size_t n = static_cast<std::size_t>(length);
      if (n > 0 && !bytes) return refuse(kNoData);
      while (n > 0 && bytes[n - 1] == pad) --n;
      return putText(charSet, bytes, n);
    }
    case 2: {  // zero-terminated text
      const std::int32_t charSet = cursor->getCharSet();
      const char* text = static_cast<const char*>(data);
      return putText(charSet, text, std::strlen(text));
    }
    case 3: {  // varying text: its own 2-byte length, then the bytes; no pad is removed
      const std::int32_t charSet = cursor->getCharSet();
      const auto* bytes = static_cast<const std::uint8_t*>(data);
      return putText(charSet, bytes + 2, load<std::uint16_t>(bytes));
    }
    case 8:
      value.number<2>(static_cast<std::uint16_t>(cursor->getScale()));
      value.number<2>(load<std::uint16_t>(data));
      break;
    case 9:
      value.number<2>(static_cast<std::uint16_t>(cursor->getScale()));
      value.number<4>(load<std::uint32_t>(data));
      break;
    case 11:
      value.number<8>(bitsOf(static_cast<double>(load<float>(data))));
      break;
    case 12:
      value.number<8>(load<std::uint64_t>(data));
      break;
    case 14:
    case 15:
      value.number<4>(load<std::uint32_t>(data));
      break;
    case 16:  // date, then time, as the server holds them
      value.number<8>(load<std::uint64_t>(data));
      break;
    case 19:
      value.number<2>(static_cast<std::uint16_t>(cursor->getScale()));
      value.number<8>(load<std::uint64_t>(data));
      break;
    case 21:
      value.byte(*static_cast<const std::uint8_t*>(data));
      break;
    default:  // 17 and 18: blob and array contents, read back from the server
      if (!attachment || !transaction)
        return refuse("CDC error: Blob or array value without attachment or transaction");
      put(value);
      copyBlob(status, attachment, transaction, data);
      return true;
  }
  put(value);
  return false;
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
