#include "TReadFile.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Crc32c.h"
#include "ReplAutoException.h"
#include "ReplException.h"

using BlockFormat::kBlockSize;
using BlockFormat::kTrailerSize;

namespace {
// A valid block is at least one data byte and its trailer.
constexpr ssize_t kSmallestBlock = 1 + kTrailerSize;
}  // namespace

TReadFile::TReadFile()
    // No block start is negative and odd, so a fresh reader never takes its empty buffer for the
    // block a seek asks for: the first seek loads the block.
    : filePosition(-1),
      fileOffset(0),
      fd(-1),
      current(buffer),
      end(buffer),
      checkCrc(false),
      crcFunction(crcNotSet) {
  fileName[0] = '\0';
}

TReadFile::~TReadFile() { close(); }

void TReadFile::close() {
  if (fd >= 0) (void)::close(fd);
  fd = -1;
}

void TReadFile::open(const char* path, bool verify) {
  close();
  filePosition = -1;
  fileOffset = 0;
  current = end = buffer;
  if (std::strlen(path) >= sizeof fileName)
    ReplAutoException::raise("TRF::Open", "Cannot open %.200s...: path too long", path);
  std::snprintf(fileName, sizeof fileName, "%s", path);
  fd = ::open(path, O_RDONLY);
  if (fd < 0)
    ReplAutoException::raise("TRF::Open", "Cannot open %s: %s", path,
                             ReplException::errnoText(errno));
  checkCrc = verify;
  crcFunction = verify ? crc32c : crcNotSet;
}

std::uint32_t TReadFile::crcNotSet(const std::uint8_t*, std::int32_t) {
  throw ReplException("TRF::RB", "BUGCHECK: CRC function is not set");
}

void TReadFile::readBlock() {
  if (!loadBlock()) throw ReplException("TRF::RB", "Unexpected EOF");
}

bool TReadFile::atEnd() { return current < end ? false : !loadBlock(); }

bool TReadFile::loadBlock() {
  current = end = buffer;
  if (fd < 0) throw ReplException("TRF::RB", "File is not opened");
  // Every block but the last is exactly kBlockSize bytes and starts at a multiple of it, so one
  // read of a regular file returns exactly one block.
  const ssize_t n = ::read(fd, buffer, kBlockSize);
  if (n == 0) return false;
  if (n < 0) throw ReplException("TRF::RB", ReplException::errnoText(errno));
  filePosition = fileOffset;
  fileOffset += n;
  end = buffer + n;
  if (!checkCrc) return true;
  if (n < kSmallestBlock) throw ReplException("TFDB::RB", "Too small block");
  end -= kTrailerSize;
  const std::uint32_t stored = BlockFormat::loadLe32(end);
  if (crcFunction(buffer, static_cast<std::int32_t>(n - kTrailerSize)) != stored)
    ReplAutoException::raise("TFDB::RB", "CRC error, file %s is corrupted", fileName);
  return true;
}

double TReadFile::getDouble() {
  const std::uint64_t bits = getLittleEndian<8>();
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

void TReadFile::getBytes(void* destination, std::int32_t count) {
  std::uint8_t* out = static_cast<std::uint8_t*>(destination);
  while (count > 0) {
    if (current >= end) readBlock();
    const std::int32_t available = static_cast<std::int32_t>(end - current);
    const std::int32_t n = count < available ? count : available;
    std::memcpy(out, current, n);
    current += n;
    out += n;
    count -= n;
  }
}

void TReadFile::skip(std::uint32_t count) {
  // Counted in offsets, not pointers: a skip may reach far beyond the buffer.
  std::int64_t remainder = (current - end) + static_cast<std::int64_t>(count);
  if (remainder <= 0) {
    current += count;
    return;
  }
  for (;;) {
    readBlock();
    const std::int64_t available = end - buffer;
    if (remainder <= available) {
      current = buffer + remainder;
      return;
    }
    remainder -= available;
  }
}

void TReadFile::seek(std::int64_t position) {
  const std::int64_t start = BlockFormat::blockStart(position);
  if (start == filePosition) {
    current = buffer + (position - filePosition);
    return;
  }
  if (::lseek64(fd, start, SEEK_SET) < 0)
    throw ReplException("TRF::Seek", ReplException::errnoText(errno));
  fileOffset = start;
  readBlock();
  current = buffer + BlockFormat::blockOffset(position);
}
