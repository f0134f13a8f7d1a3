// Applying a directory of logs to a replica and comparing it with its source, as the replica and
// workload tests do after a capture.
#pragma once

#include <string>

#include "CaptureDriver.h"
#include "ReplicaApplier.h"
#include "TestFiles.h"

// Applies every log of directory not yet applied to the replica at replicaPath, as fbcdc apply
// does; warnings (if given) receives the warnings, one a line.
ReplicaApplier::Summary applyDirectory(const std::string& replicaPath, const std::string& directory,
                                       ReplicaApplier::Conflicts conflicts,
                                       std::string* warnings = nullptr);

// "" when the replica equals the source (the applier's position table aside), else the first
// difference or the failure to compare.
std::string differenceBetween(const std::string& sourcePath, const std::string& replicaPath);

// Options capturing a workload of dir/source.fdb into dir/logs (the plugin told so by
// dir/plugin.conf), beside an empty replica dir/replica.fdb with the workload's schema; the
// caller names the plugin library.
CaptureOptions captureInto(const TempDir& dir, std::uint64_t seed, int threads,
                           std::uint64_t transactions, std::size_t maxBlob);
