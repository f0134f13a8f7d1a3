// Snapshot files among the paths a command is given: a snapshot directory (one holding a snapshot
// manifest) stands for its chunk files in the order of their rows, a snapshot file for itself.
#pragma once

#include <string>
#include <vector>

#include "LogFile.h"

namespace fbcdc {

// Appends what path stands for when it is a snapshot directory or file; false when it is
// neither. Throws std::runtime_error for a damaged manifest.
bool expandSnapshot(const std::string& path, std::vector<LogFile>& logs);

}  // namespace fbcdc
