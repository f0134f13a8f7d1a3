// Reads a change log back as the byte stream its writer put into it.
//
// One block at a time is loaded into the reader's buffer. With CRC checking on, each block is
// verified against its trailer when it is loaded and the trailer is not handed out; with it off,
// every byte of the file is handed out, trailers included. Positions are log positions, the same
// numbers the writer reports, so any position taken from either side can be given to seek.
//
//   TReadFile log;
//   log.open("/var/lib/cdc/000000006553f103_00000000000004d2.fbl", true);
//   std::uint8_t magic[4];
//   log.getBytes(magic, 4);
//   std::uint8_t version = log.getByte();
//
// Failures throw ReplException (or ReplAutoException for a CRC mismatch, whose message names the
// file). A reader is used by one thread at a time; reading allocates nothing. After a failure the
// reader is only good for open(): a block whose CRC did not match stays in the buffer unverified,
// and after the end of the file the buffer is empty while its position still names the last block.
#pragma once

#include <cstdint>

#include "BlockFormat.h"

class TReadFile {
 public:
  using CrcFunction = std::uint32_t (*)(const std::uint8_t* data, std::int32_t length);

  struct Int32Pair {
    std::uint32_t first;
    std::uint32_t second;
  };

  // No file: every load fails with "File is not opened" until open succeeds.
  TReadFile();
  // Closes the descriptor if one is open.
  ~TReadFile();

  TReadFile(const TReadFile&) = delete;
  TReadFile& operator=(const TReadFile&) = delete;

  // Opens path read-only (closing a file opened before). With checkCrc every block is verified with
  // CRC-32C. Nothing is read yet: the first get operation or seek loads the first block.
  void open(const char* path, bool checkCrc);

  // Loads the next block.
  void readBlock();

  std::uint8_t getByte() {
    if (current >= end) readBlock();
    return *current++;
  }
  std::uint16_t getInt16() { return static_cast<std::uint16_t>(getLittleEndian<2>()); }
  std::uint32_t getInt32() { return static_cast<std::uint32_t>(getLittleEndian<4>()); }
  std::uint64_t getInt64() { return getLittleEndian<8>(); }
  double getDouble();
  void getInt32Pair(Int32Pair& pair) {
    pair.first = getInt32();
    pair.second = getInt32();
  }
  // Copies count bytes; a count of 0 or less copies and reads nothing.
  void getBytes(void* destination, std::int32_t count);
  // Moves forward over count bytes, loading and verifying every block passed over.
  void skip(std::uint32_t count);

  // In-place reading for callers that take many small values: the loaded block's bytes not yet
  // handed out begin at peek() and number available(); consume(n) hands out n of them
  // (n <= available()). A value that the block edge splits must go through the get operations.
  const std::uint8_t* peek() const { return current; }
  std::int32_t available() const {
    return current < end ? static_cast<std::int32_t>(end - current) : 0;
  }
  void consume(std::int32_t n) { current += n; }
  // True when no byte follows: the loaded block is used up and the file holds nothing more. Loads
  // (and verifies) the next block otherwise.
  bool atEnd();

  // Log position of the next byte. Inline: a decoder asks for it once per record.
  std::int64_t getPosition() const {
    return current < end ? filePosition + (current - buffer) : fileOffset + (current - end);
  }
  // Moves to a log position, loading its block unless it is the one in the buffer. A position with
  // no data byte in its block (a trailer, or behind a short last block) is taken as it is: the next
  // get operation loads the following block.
  void seek(std::int64_t position);

  // The CRC function of a reader that has none: never returns.
  [[noreturn]] static std::uint32_t crcNotSet(const std::uint8_t* data, std::int32_t length);

  const char* getFileName() const { return fileName; }

 private:
  template <int N>
  std::uint64_t getLittleEndian() {
    std::uint64_t value = 0;
    if (end - current >= N) {
      for (int i = 0; i < N; ++i) value |= static_cast<std::uint64_t>(current[i]) << (8 * i);
      current += N;
    } else {
      // The writer may have split the value between two blocks at any byte.
      for (int i = 0; i < N; ++i) value |= static_cast<std::uint64_t>(getByte()) << (8 * i);
    }
    return value;
  }

  void close();
  // Loads the next block as readBlock does; false at the end of the file.
  bool loadBlock();

  std::int64_t filePosition;  // log position of buffer[0]: the block loaded last
  std::int64_t fileOffset;    // the descriptor's offset, just behind the bytes read last
  int fd;
  char fileName[8192];
  std::uint8_t buffer[BlockFormat::kBlockSize];
  std::uint8_t* current;
  std::uint8_t* end;
  bool checkCrc;
  CrcFunction crcFunction;
};
