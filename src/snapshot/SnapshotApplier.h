// Fills an empty replica from a snapshot, then lets the applier go on with the logs, leaving out
// the changes the snapshot already contains; exactly once across crashes.
//
// Each snapshot file is applied like a log, in one transaction with the position after it: the
// replica's position table then holds "snapshot <files applied> <log position>" (SnapshotPosition),
// so a rerun goes on with the next file, and once all are in, with the logs. Before the first file
// every table of the snapshot must be empty in the replica.
//
//   SnapshotStream snapshot(dir);
//   SnapshotApplier filler(replica, applier, snapshot);
//   filler.applyRows();                 // what is left of the snapshot
//   ... applier.position(), applier.apply(log, after) as for any replica
#pragma once

#include <cstddef>
#include <functional>

#include "SnapshotPosition.h"
#include "SnapshotStream.h"

class Database;
class ReplicaApplier;

class SnapshotApplier {
 public:
  // Sets the applier up for the snapshot: its stored positions carry the snapshot's progress and
  // the changes the snapshot contains are left out of every log it applies. All three must
  // outlive this object's use of the applier.
  SnapshotApplier(Database& replica, ReplicaApplier& applier, const SnapshotStream& snapshot);

  // The stored position: how many snapshot files are in, and the log position after them.
  SnapshotPosition position();

  // Applies the snapshot files not yet applied; progress(done, all) after each. Returns the files
  // applied by this call. Throws std::runtime_error when nothing is applied yet and a table of
  // the snapshot holds rows in the replica, and ApplyError as the applier does.
  std::size_t applyRows(const std::function<void(std::size_t, std::size_t)>& progress = nullptr);

 private:
  Database& replica_;
  ReplicaApplier& applier_;
  const SnapshotStream& snapshot_;
};
