// The buffered block writer of one change log.
//
// The owner sees a plain byte stream: it appends bytes, little-endian numbers and byte runs, asks
// for the current log position, and flushes once at the end. The writer cuts the stream into blocks
// of 32764 data bytes, closes each with the CRC-32C of its data and hands the block to the system
// in one write request. The file is created only at the first flush, so a log that never fills a
// block and is never flushed leaves no file behind.
//
// Calling order: construction; the owner writes fileName; puts, getPosition and seek in any order;
// flushBlock once to end the log; the owner closes fd and sets it to -1; destruction.
//
// Failures throw ReplException. After a write failed (or made no progress) the writer refuses all
// further output, so a log that lost bytes can never be completed and published.
#pragma once

#include <cstdint>
#include <cstring>

#include "BlockFormat.h"

class TWriteFile {
 public:
  TWriteFile();
  // Closes fd if it is open. Neither flushes nor removes: buffered data are dropped.
  virtual ~TWriteFile();

  TWriteFile(const TWriteFile&) = delete;
  TWriteFile& operator=(const TWriteFile&) = delete;

  void putByte(std::uint8_t value) {
    if (current >= end) flushBlock();  // only after a flush failed to create the file
    *current++ = value;
    if (current == end) flushBlock();
  }
  void putInt16(std::uint16_t value) { putLittleEndian<2>(value); }
  void putInt32(std::uint32_t value) { putLittleEndian<4>(value); }
  void putInt64(std::uint64_t value) { putLittleEndian<8>(value); }
  // A single-precision value is widened to double by the caller.
  void putDouble(double value) {
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    putLittleEndian<8>(bits);
  }
  // The bytes of putInt32(first) followed by those of putInt32(second).
  void putInt32Pair(std::uint32_t first, std::uint32_t second) {
    putLittleEndian<8>(static_cast<std::uint64_t>(second) << 32 | first);
  }
  // A length of 0 or less appends nothing.
  void putBytes(const void* data, std::int32_t length) {
    // Most runs are short and fit the block with room to spare: one check, one copy.
    if (length > 0 && end - current > length) {
      std::memcpy(current, data, static_cast<std::size_t>(length));
      current += length;
      return;
    }
    putBytesAcrossBlocks(data, length);
  }

  // Writes the buffered data as one block; nothing when the buffer is empty.
  void flushBlock();

  std::int64_t getPosition() const { return filePosition + (current - buffer); }

  // Rewinds to an earlier log position, reading a block back from the file when the position lies
  // in a block already written. Leaves the descriptor's offset equal to filePosition, and raises
  // highWaterMark to the longest the file has been, which the owner cuts back to at the end.
  void seek(std::int64_t target);

 protected:
  // Direct stores for callers that assemble a short value in place: room(n) is where n bytes may be
  // stored without reaching the flush threshold (null when they may not), and advance(n) appends the
  // n bytes stored there.
  std::uint8_t* room(std::int32_t n) { return end - current > n ? current : nullptr; }
  void advance(std::int32_t n) { current += n; }

  int fd;
  std::uint8_t buffer[BlockFormat::kBlockSize];
  std::uint8_t* current;
  std::uint8_t* const end;
  std::int64_t filePosition;
  std::int64_t highWaterMark;
  char fileName[8192];

 private:
  // Stores N bytes of value, least significant first. The block may end between any two of them.
  template <int N>
  void putLittleEndian(std::uint64_t value) {
    if (end - current >= N) {
      for (int i = 0; i < N; ++i) current[i] = static_cast<std::uint8_t>(value >> (8 * i));
      current += N;
      if (current == end) flushBlock();
    } else {
      for (int i = 0; i < N; ++i) putByte(static_cast<std::uint8_t>(value >> (8 * i)));
    }
  }

  void putBytesAcrossBlocks(const void* data, std::int32_t length);

  // Throws unless output may continue.
  void checkNotStopped() const;
  // Refuses all further output: every later put, flushBlock and seek throws.
  [[noreturn]] void stop(const char* tag, const char* reason);

  bool stopped;
};
