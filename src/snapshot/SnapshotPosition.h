// How far a consumer that starts from a snapshot has come: the snapshot files it finished, and
// its position in the logs after them (FollowPosition). Stored where a follower keeps its
// position (checkpoint file, Redis), as one line:
//
//   snapshot <files finished> <log position, may be empty>
//
// with tabs between the parts.
#pragma once

#include <cstdint>
#include <string>

#include "FollowPosition.h"

class SnapshotPosition {
 public:
  std::uint32_t files = 0;
  FollowPosition logs;

  std::string serialize() const;
  // Nothing stored ("") is the start. A log position stored by a consumer that did not start
  // from a snapshot, or any other text serialize() cannot have written, throws
  // std::runtime_error: its events were not preceded by the snapshot's rows.
  static SnapshotPosition parse(const std::string& text);
};
