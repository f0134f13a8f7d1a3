// Savepoints: the stack of positions at which savepoints started, and the rewind of the log when
// one is rolled back.
#include "../blockfile/ReplException.h"
#include "ReplTransaction.h"

void ReplTransaction::startSavepoint(Firebird::IStatus*, std::int32_t number) {
  if (committed) return;
  // Touches no file, so nothing here can fail but the allocation, which the server handles.
  savepoints = new ReplSavepoint{savepoints, number, getPosition()};
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
