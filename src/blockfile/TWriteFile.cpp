#include "TWriteFile.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

#include "Crc32c.h"
#include "ReplException.h"

using BlockFormat::kBlockDataSize;
using BlockFormat::kTrailerSize;

namespace {
const char kWriteTag[] = "TF::WC-w";
const char kStoppedText[] = "Log writer stopped after an earlier write failure";
}  // namespace

TWriteFile::TWriteFile()
    : fd(-1),
      current(buffer),
      end(buffer + kBlockDataSize),
      filePosition(0),
      highWaterMark(0),
      stopped(false) {
  fileName[0] = '\0';
}

TWriteFile::~TWriteFile() {
  if (fd >= 0) (void)::close(fd);
}

void TWriteFile::putBytesAcrossBlocks(const void* data, std::int32_t length) {
  const std::uint8_t* p = static_cast<const std::uint8_t*>(data);
  while (length > 0) {
    if (current >= end) flushBlock();
    std::int32_t room = static_cast<std::int32_t>(end - current);
    std::int32_t n = length < room ? length : room;
    std::memcpy(current, p, n);
    current += n;
    p += n;
    length -= n;
    if (current == end) flushBlock();
  }
}

void TWriteFile::checkNotStopped() const {
  if (stopped) throw ReplException(kWriteTag, kStoppedText);
}

void TWriteFile::stop(const char* tag, const char* reason) {
  stopped = true;
  // Parks the buffer as full: every later put then goes through flushBlock, which refuses. The
  // bytes of a log that lost data must never reach a published file.
  current = end;
  throw ReplException(tag, reason);
}

void TWriteFile::flushBlock() {
  checkNotStopped();
  const std::int32_t n = static_cast<std::int32_t>(current - buffer);
  if (n == 0) return;

  if (fd < 0) {
    // Created exclusively: two writers never share a file, and a file of this name that someone
    // else made is never overwritten. Read access is needed to read blocks back on a rewind.
    fd = ::open(fileName, O_RDWR | O_CREAT | O_EXCL, 0660);
    if (fd < 0) throw ReplException("Log file creation failed", ReplException::errnoText(errno));
  }

  // The trailer goes directly behind the data so that the block leaves in one request.
  BlockFormat::storeLe32(buffer + n, crc32c(buffer, n));

  const std::uint8_t* p = buffer;
  std::size_t left = static_cast<std::size_t>(n) + kTrailerSize;
  while (left > 0) {
    const ssize_t written = ::write(fd, p, left);
    if (written < 0) stop(kWriteTag, ReplException::errnoText(errno));
    // A regular file never accepts nothing; if it does, retrying could loop forever.
    if (written == 0) stop(kWriteTag, "Write made no progress");
    p += written;
    left -= static_cast<std::size_t>(written);
  }

  filePosition += n + kTrailerSize;
  current = buffer;
}

void TWriteFile::seek(std::int64_t target) {
  checkNotStopped();
  // The file on disk may be longer than filePosition after this rewind; commit cuts it back to the
  // final length, so remember the longest state the file has had.
  if (filePosition > highWaterMark) highWaterMark = filePosition;

  const bool inBuffer = target >= filePosition;
  const std::int64_t offset = inBuffer ? target - filePosition : BlockFormat::blockOffset(target);
  // Every position the writer hands out lies before the flush threshold of its block.
  if (offset >= kBlockDataSize)
    throw ReplException("TWF::Seek", "!BUGCHECK! Seek past end of buffer");

  if (inBuffer) {
    // The bytes between the new and the old position are stale: overwritten or never written.
    current = buffer + offset;
    return;
  }

  // A rollback may reach into a block already on disk: read it back whole, keep its data up to the
  // target, and write it again over its old copy when it fills or the log ends. Its old CRC is not
  // checked; the block is written again under a new one.
  // A failed rewind stops the writer, also the first positioning, which leaves everything as it
  // was: the server is told of no failure here (a rollback has no status), so going on would
  // publish the records the rollback was to undo. Stopped, the commit fails and nothing is
  // published. From the read on, the descriptor has also moved away from filePosition.
  const std::int64_t start = BlockFormat::blockStart(target);
  if (::lseek64(fd, start, SEEK_SET) < 0) stop("TWF::Seek", ReplException::errnoText(errno));
  const ssize_t got = ::read(fd, buffer, BlockFormat::kBlockSize);
  if (got < 0) stop("TWF::Seek-RB", ReplException::errnoText(errno));
  if (got == 0) stop("TWF::Seek-RB", "Unexpected EOF");
  // Every block before filePosition is full; a short one means the file changed under us.
  if (got < BlockFormat::kBlockSize) stop("TWF::Seek-RB", "Short block read");
  if (::lseek64(fd, start, SEEK_SET) < 0) stop("TWF::Seek2", ReplException::errnoText(errno));

  current = buffer + offset;
  filePosition = start;
}
