#include "LogVerifier.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "BlockFormat.h"
#include "Crc32c.h"
#include "LogDecoder.h"
#include "LogFormatError.h"
#include "LogName.h"
#include "ReplException.h"

namespace {

// Reads every block and checks its size and CRC; one problem per bad block, worded as the decoder
// words the first.
void checkBlocks(const std::string& path, LogVerifier::Result& result) {
  using BlockFormat::kBlockSize;
  using BlockFormat::kTrailerSize;
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) {
    result.problems.push_back({0, 0, LogFormatError::cannotOpen(ReplException::errnoText(errno))});
    return;
  }
  std::unique_ptr<std::uint8_t[]> block(new std::uint8_t[kBlockSize]);
  std::int64_t at = 0;
  for (;;) {
    // A block is whatever one read returns; the file's blocks are full but for the last.
    std::int64_t n = 0;
    while (n < kBlockSize) {
      const ssize_t r = ::read(fd, block.get() + n, static_cast<std::size_t>(kBlockSize - n));
      if (r < 0 && errno == EINTR) continue;
      if (r < 0) {
        result.problems.push_back(
            {at >> 15, at + n, LogFormatError::readFailed(ReplException::errnoText(errno))});
        ::close(fd);
        return;
      }
      if (r == 0) break;
      n += r;
    }
    if (n == 0) break;
    if (n <= kTrailerSize) {
      result.problems.push_back({at >> 15, at, LogFormatError::kBlockTooShort});
    } else {
      const auto dataBytes = static_cast<std::int32_t>(n - kTrailerSize);
      const std::uint32_t stored = BlockFormat::loadLe32(block.get() + dataBytes);
      const std::uint32_t computed = crc32c(block.get(), dataBytes);
      if (stored != computed)
        result.problems.push_back({at >> 15, at, LogFormatError::kCrcMismatch});
    }
    at += n;
    if (n < kBlockSize) break;
  }
  ::close(fd);
  // An empty file is left to the decoder, which words it as dump does.
  result.bytes = at;
}

}  // namespace

LogVerifier::Result LogVerifier::verify(const std::string& path) {
  Result result;
  LogName name;
  const bool published = !LogName::parse(path, name) || name.published;
  checkBlocks(path, result);
  if (result.problems.empty()) {
    LogDecoder decoder;
    // Blob contents are not needed here: they are checked piece by piece and dropped.
    decoder.streamBlobs(0, [](std::string_view, const std::uint8_t*, std::size_t) {});
    try {
      decoder.open(path);
      while (decoder.next().kind != ChangeEvent::Kind::kEnd) ++result.events;
    } catch (const LogFormatError& e) {
      result.problems.push_back({e.block(), e.position(), e.reason()});
    }
  }
  if (result.problems.empty())
    result.verdict = published ? Verdict::kValid : Verdict::kComplete;
  else
    result.verdict = published ? Verdict::kDamaged : Verdict::kIncomplete;
  return result;
}

const char* LogVerifier::describe(Verdict verdict) {
  switch (verdict) {
    case Verdict::kValid:
      return "valid";
    case Verdict::kDamaged:
      return "damaged";
    case Verdict::kComplete:
      return "complete but never published";
    case Verdict::kIncomplete:
      return "incomplete";
  }
  return "";
}
