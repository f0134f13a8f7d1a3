// Applying a directory of logs to a replica and comparing it with its source, as the replica and
// workload tests do after a capture.
#pragma once

#include <string>

#include "ReplicaApplier.h"

// Applies every log of directory not yet applied to the replica at replicaPath, as fbcdc apply
// does; warnings (if given) receives the warnings, one a line.
ReplicaApplier::Summary applyDirectory(const std::string& replicaPath, const std::string& directory,
                                       ReplicaApplier::Conflicts conflicts,
                                       std::string* warnings = nullptr);

// "" when the replica equals the source (the applier's position table aside), else the first
// difference or the failure to compare.
std::string differenceBetween(const std::string& sourcePath, const std::string& replicaPath);
