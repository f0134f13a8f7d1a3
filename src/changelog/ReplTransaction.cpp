#include "ReplTransaction.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "../blockfile/ReplException.h"
#include "../status/ReplStatus.h"

ReplTransaction::ReplTransaction(std::uint64_t number)
    : outputDirectory(nullptr),
      transactionNumber(number),
      committed(false),
      commitMarkerPut(false),
      headerEnd(0),
      directoryFd(-1),
      savepoints(nullptr) {}

ReplTransaction::~ReplTransaction() {
  while (savepoints) {
    ReplSavepoint* below = savepoints->next;
    delete savepoints;
    savepoints = below;
  }
}

std::int64_t ReplTransaction::formatName(char* out, std::size_t size, const char* suffix,
                                         std::int64_t time) const {
  // The time is widened to a signed 64-bit number and printed with its two's complement bits.
  const std::int64_t now = time == kNow ? static_cast<std::int64_t>(::time(nullptr)) : time;
  std::snprintf(out, size, "%s%16.16llx_%16.16llx%s", outputDirectory,
                static_cast<unsigned long long>(now),
                static_cast<unsigned long long>(transactionNumber), suffix);
  return now;
}

void ReplTransaction::initialize(const char* directory, int syncedDirectory) {
  outputDirectory = directory;
  directoryFd = syncedDirectory;
  formatName(fileName, sizeof fileName, ".tmp");
  // The header stays in the buffer: no file exists until the first block is flushed.
  putByte('Z');
  putByte('E');
  putByte('F');
  putByte('O');
  putByte(kFormatVersion);
  headerEnd = getPosition();
}

std::int32_t ReplTransaction::commit(Firebird::IStatus* status) {
  // The server should call only dispose after a commit; a second commit has nothing left to do.
  if (committed) return 0;
  // Nothing recorded (or everything rolled back): nothing is published, and dispose removes a file
  // that an earlier block flush may have created.
  if (getPosition() <= headerEnd) return 0;
  try {
    // A commit whose flush failed (the file could not be created) may be called again; the marker
    // is then already in the buffer and must not be put twice.
    if (!commitMarkerPut) {
      const std::int64_t before = getPosition();
      try {
        putByte(kCommitMarker);
      } catch (const ReplException&) {
        commitMarkerPut = getPosition() != before;
        throw;
      }
      commitMarkerPut = true;
    }
    flushBlock();
  } catch (const ReplException& e) {
    // The log stays unpublished; dispose removes the file if one was created.
    return ReplStatus::reportException(status, e);
  }
  // A rollback into a block already on disk may have left the file longer than the final log.
  const std::int64_t length = getPosition();
  if (length < highWaterMark) (void)::ftruncate64(fd, length);
  // A durable log is on stable storage before it can be published; its length counts among the
  // data that fdatasync saves. A failure leaves the log unpublished, and dispose removes it.
  if (directoryFd >= 0 && ::fdatasync(fd) != 0)
    return ReplStatus::reportException(status,
                                       ReplException("TF::Sync", ReplException::errnoText(errno)));
  (void)::close(fd);
  fd = -1;
  committed = true;
  return 0;
}

void ReplTransaction::dispose() {
  if (committed) {
    // The final name carries the time of publication, which may differ from the temporary one's.
    // If the rename fails the complete log stays under its temporary name; nothing can be reported.
    char finalName[sizeof fileName];
    std::int64_t named = formatName(finalName, sizeof finalName, ".fbl");
    const bool renamed = ::rename(fileName, finalName) == 0;
    // A rename that came late is done again under the current second, a few times at most. The
    // log keeps its transaction number, by which a consumer that took it under the first name
    // knows it again.
    for (int again = 0; renamed && again < 3; ++again) {
      const auto now = static_cast<std::int64_t>(::time(nullptr));
      if (now - named < kLateRenameSeconds && now >= named) break;
      char later[sizeof fileName];
      formatName(later, sizeof later, ".fbl", now);
      if (::rename(finalName, later) != 0) break;
      std::memcpy(finalName, later, std::strlen(later) + 1);
      named = now;
    }
    // A durable log is published only once the rename is on stable storage too. When the
    // directory cannot be synced, the log goes back to its temporary name, complete but not
    // published, rather than stay visible under a name that a power loss may take away.
    if (renamed && directoryFd >= 0 && ::fsync(directoryFd) != 0)
      (void)::rename(finalName, fileName);
  } else if (fd >= 0) {
    // Only a file this transaction created is removed; with fd at -1 a file of the same name
    // belongs to someone else.
    (void)::close(fd);
    fd = -1;
    (void)::remove(fileName);
  }
  delete this;
}
