// What the replica, snapshot and workload tests share: a workload captured into a test's directory,
// its logs applied to a replica that is compared with the source, commands run to their end or
// killed and run again (any program; FbcdcRuns has fbcdc's own runs and golden files).
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "CaptureDriver.h"
#include "ReplicaApplier.h"
#include "TestFiles.h"

// Options capturing a workload of dir/source.fdb into dir/logs (the plugin told so by
// dir/plugin.conf), beside an empty replica dir/replica.fdb with the workload's schema; the caller
// names the plugin library.
CaptureOptions captureInto(const TempDir& dir, std::uint64_t seed, int threads,
                           std::uint64_t transactions, std::size_t maxBlob);
// Runs such a capture by the plugin library plugin, with hotRows hot rows.
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

// A command run to its end, its stdout and stderr written to dir/out.txt and dir/err.txt.
struct Outcome {
  int status;
  std::string out, err;
};
Outcome run(const TempDir& dir, const std::vector<std::string>& args);

// Runs args (stderr to err) again and again: each of the first kills runs is killed delay(run)
// microseconds after it starts, unless it ends first, which must be a success and ends the loop;
// the run after them goes to its end and must succeed. Returns the number of runs killed.
int runKilled(const std::vector<std::string>& args, const std::string& err, int kills,
              const std::function<unsigned(int)>& delay);
