// What the replica, snapshot and workload tests share: a workload captured into a test's directory,
// its logs applied to a replica that is compared with the source, a command killed and run again
// (any program; FbcdcRuns has fbcdc's own runs and golden files).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "CaptureDriver.h"
#include "ReplicaApplier.h"
#include "TestFiles.h"

// Captures a workload of dir/source.fdb into dir/logs by the plugin library plugin (told so by
// dir/plugin.conf), with hotRows hot rows, beside an empty replica dir/replica.fdb with the
// workload's schema.
CaptureSummary captureRun(const TempDir& dir, const std::string& plugin, std::uint64_t seed,
                          int threads, std::uint64_t transactions, std::size_t maxBlob,
                          int hotRows = 0);

// Applies every log of dir/logs not yet applied to dir/replica.fdb, as fbcdc apply does; warnings
// (if given) receives the warnings, one a line.
ReplicaApplier::Summary applyLogs(
    const TempDir& dir, ReplicaApplier::Conflicts conflicts = ReplicaApplier::Conflicts::kError,
    std::string* warnings = nullptr);

// "" when the replica equals the source (the applier's position table aside), else the first
// difference or the failure to compare.
std::string differenceBetween(const std::string& sourcePath, const std::string& replicaPath);

// Runs args (stderr to err) again and again: each of the first kills runs is killed delay(run)
// microseconds after it starts, unless it ends first, which must be a success and ends the loop;
// the run after them goes to its end and must succeed. Returns the number of runs killed.
int runKilled(const std::vector<std::string>& args, const std::string& err, int kills,
              const std::function<unsigned(int)>& delay);
