// Savepoints: the stack of positions at which savepoints started, and the rewind of the log when
// one is rolled back.
#include "../blockfile/ReplException.h"
#include "ReplTransaction.h"

void ReplTransaction::startSavepoint(Firebird::IStatus*, std::int32_t number) {
  if (committed) return;
  std::int64_t position = getPosition();
  // While a block could not be flushed (its file could not be created) the buffer stays full and
  // the position points at the trailer. The next byte will start the next block, so that is where
  // the savepoint starts; a rewind to a trailer position could never be done.
  if (BlockFormat::blockOffset(position) == BlockFormat::kBlockDataSize)
    position += BlockFormat::kTrailerSize;
  // Touches no file, so nothing here can fail but the allocation, which the server handles.
  savepoints = new ReplSavepoint{savepoints, number, position};
}

void ReplTransaction::releaseSavepoint(Firebird::IStatus*, std::int32_t number) {
  if (committed) return;
  // The records of released savepoints stay in the log.
  while (savepoints && savepoints->number >= number) {
    ReplSavepoint* below = savepoints->next;
    delete savepoints;
    savepoints = below;
  }
}

void ReplTransaction::rollbackSavepoint(std::int32_t number) {
  if (committed) return;
  // Savepoints started inside the one rolled back lie at or after the position the log returns to.
  while (savepoints && savepoints->number > number) {
    ReplSavepoint* below = savepoints->next;
    delete savepoints;
    savepoints = below;
  }
  try {
    if (!savepoints) {
      seek(headerEnd);
      return;
    }
    seek(savepoints->position);
    // Removed only once the rewind succeeded.
    ReplSavepoint* below = savepoints->next;
    delete savepoints;
    savepoints = below;
  } catch (const ReplException&) {
    // There is no status to report to. A rewind that failed after moving the descriptor has
    // stopped the writer, so commit fails and the log is never published.
  }
}
