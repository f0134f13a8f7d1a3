// The block container in which every change log lies on disk.
//
//   file  := block* last-block
//   block := data[32764] crc[4]          (every block but the last)
//   last  := data[1..32764] crc[4]
//   crc   := CRC-32C of the block's data, little-endian
//
// Block k starts at file offset 32768 * k. There is no file header, no block count and no padding.
// The data parts of all blocks, in order, form one byte stream that ignores block edges: a record
// or a number may be split between two blocks at any byte.
//
// A log position is a signed 64-bit offset into the file as it lies on disk, trailers included.
// Position p lies in block p >> 15 at byte p & 0x7FFF of that block's data. Until the final flush a
// writer never hands out a position inside a trailer.
//
// Example: the log of a transaction whose only record is an SQL statement without text and with the
// number 1 is one 24-byte block:
//   5A 45 46 4F 04  53 00 00 13 00 00 01 00 00 00 00 00 00 00  7B  26 F4 89 80
//   "ZEFO" version   statement record                          commit  CRC-32C
#pragma once

#include <cstdint>

namespace BlockFormat {

constexpr std::int32_t kBlockSize = 32768;
constexpr std::int32_t kTrailerSize = 4;
constexpr std::int32_t kBlockDataSize = kBlockSize - kTrailerSize;
constexpr std::int64_t kBlockOffsetMask = kBlockSize - 1;

static_assert((kBlockSize & (kBlockSize - 1)) == 0,
              "block positions are split with shifts and masks");
static_assert(kBlockDataSize == 32764,
              "the flush threshold sits four bytes before the buffer's end");

// Start of the block that holds position p.
constexpr std::int64_t blockStart(std::int64_t p) { return p & ~kBlockOffsetMask; }
// Offset of position p inside its block.
constexpr std::int32_t blockOffset(std::int64_t p) {
  return static_cast<std::int32_t>(p & kBlockOffsetMask);
}

// Stores v as a little-endian 32-bit number, the byte order of the trailer.
inline void storeLe32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
  p[2] = static_cast<std::uint8_t>(v >> 16);
  p[3] = static_cast<std::uint8_t>(v >> 24);
}

inline std::uint32_t loadLe32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

}  // namespace BlockFormat
