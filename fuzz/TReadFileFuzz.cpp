// The block reader on any file: read whole, it hands out exactly the data of the blocks whose CRC
// is right, up to the first that is not, and then fails with a ReplException; driven by the first
// bytes of the input, its get, skip and seek operations never read out of bounds.
#include <cstring>
#include <vector>

#include "BlockFormat.h"
#include "Crc32c.h"
#include "FuzzFile.h"
#include "ReplException.h"
#include "TReadFile.h"

namespace {

// The bytes a reader with CRC checking must hand out before it stops.
std::vector<std::uint8_t> expectedStream(const std::uint8_t* data, std::size_t size) {
  std::vector<std::uint8_t> out;
  for (std::size_t at = 0; at < size; at += BlockFormat::kBlockSize) {
    const std::size_t n = std::min<std::size_t>(BlockFormat::kBlockSize, size - at);
    if (n < 5) break;
    const auto dataBytes = static_cast<std::int32_t>(n - 4);
    if (crc32c(data + at, dataBytes) != BlockFormat::loadLe32(data + at + dataBytes)) break;
    out.insert(out.end(), data + at, data + at + dataBytes);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::uint8_t mode = data[0];
  const std::uint8_t* file = data + 1;
  const std::size_t fileSize = size - 1;
  writeFuzzFile(file, fileSize);
  TReadFile reader;
  if (mode & 1) {
    // Whole reads: exactly the verified data, then a failure.
    std::vector<std::uint8_t> got;
    std::uint8_t chunk[1000];
    const std::int32_t step = 1 + mode % 97;
    try {
      reader.open(fuzzPath().c_str(), true);
      for (;;) {
        reader.getBytes(chunk, step);
        got.insert(got.end(), chunk, chunk + step);
      }
    } catch (const ReplException&) {
    }
    const std::vector<std::uint8_t> expected = expectedStream(file, fileSize);
    if (got.size() > expected.size() || !std::equal(got.begin(), got.end(), expected.begin()) ||
        expected.size() - got.size() >= static_cast<std::size_t>(step))
      __builtin_trap();
    return 0;
  }
  // Mixed operations, their choices and arguments taken from the file's own bytes.
  try {
    reader.open(fuzzPath().c_str(), (mode & 2) != 0);
    std::uint8_t buffer[300];
    TReadFile::Int32Pair pair;
    for (std::size_t op = 0; op < 64; ++op) {
      const std::uint8_t c = op < fileSize ? file[op] : static_cast<std::uint8_t>(op);
      if (c % 8 == 0) reader.getByte();
      if (c % 8 == 1) reader.getInt16();
      if (c % 8 == 2) reader.getInt64();
      if (c % 8 == 3) reader.getDouble();
      if (c % 8 == 4) reader.getBytes(buffer, c);
      if (c % 8 == 5) reader.skip(static_cast<std::uint32_t>(c) * 300);
      if (c % 8 == 6) reader.seek(static_cast<std::int64_t>(c) * 517);
      if (c % 8 == 7) reader.getInt32Pair(pair);
      if (reader.getPosition() < 0) __builtin_trap();
    }
  } catch (const ReplException&) {
  }
  return 0;
}
