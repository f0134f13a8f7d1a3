#include "ReplicaRuns.h"

#include <gtest/gtest.h>

#include <vector>

#include "DatabaseComparer.h"
#include "LogDirectory.h"
#include "Workload.h"

ReplicaApplier::Summary applyDirectory(const std::string& replicaPath, const std::string& directory,
                                       ReplicaApplier::Conflicts conflicts, std::string* warnings) {
  Database replica(replicaPath, false);
  ReplicaApplier applier(replica, conflicts);
  applier.onWarning([warnings](const std::string& w) {
    if (warnings) *warnings += w + "\n";
  });
  FollowPosition position = applier.position();
  std::vector<LogFile> logs = LogDirectory::list(directory);
  for (std::size_t i = 0; i < logs.size();)
    i += position.isDone(logs[i]) ? 1 : applier.applyNext(logs, i, position);
  return applier.summary();
}

std::string differenceBetween(const std::string& sourcePath, const std::string& replicaPath) {
  Database source(sourcePath, false);
  Database replica(replicaPath, false);
  try {
    const DatabaseComparer::Result r =
        DatabaseComparer::compare(source, replica, {ReplicaApplier::kPositionTable});
    EXPECT_GT(r.rows, 0u);
    return r.equal ? "" : r.difference;
  } catch (const Firebird::FbException& e) {
    return "comparing failed: " + Database::describe(e);
  }
}

CaptureOptions captureInto(const TempDir& dir, std::uint64_t seed, int threads,
                           std::uint64_t transactions, std::size_t maxBlob) {
  {
    Database replica(dir / "replica.fdb", true);
    Workload::createSchema(replica);
  }
  writeFile(dir / "plugin.conf", "OutputDirectory = " + dir.path() + "logs\n");
  CaptureOptions o;
  o.database = dir / "source.fdb";
  o.configFile = dir / "plugin.conf";
  o.outputDirectory = dir / "logs";
  o.seed = seed;
  o.threads = threads;
  o.transactions = transactions;
  o.maxBlob = maxBlob;
  return o;
}
