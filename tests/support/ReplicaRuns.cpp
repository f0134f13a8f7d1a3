#include "ReplicaRuns.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "DatabaseComparer.h"
#include "LogDirectory.h"
#include "Processes.h"
#include "Workload.h"

CaptureSummary captureRun(const TempDir& dir, const std::string& plugin, std::uint64_t seed,
                          int threads, std::uint64_t transactions, std::size_t maxBlob,
                          int hotRows) {
  if (!fileExists(dir / "replica.fdb")) {
    Database replica(dir / "replica.fdb", true);
    Workload::createSchema(replica);
  }
  writeFile(dir / "plugin.conf", "OutputDirectory = " + dir.path() + "logs\n");
  CaptureOptions o;
  o.database = dir / "source.fdb";
  o.configFile = dir / "plugin.conf";
  o.outputDirectory = dir / "logs";
  o.pluginLibrary = plugin;
  o.seed = seed;
  o.threads = threads;
  o.transactions = transactions;
  o.maxBlob = maxBlob;
  o.hotRows = hotRows;
  return CaptureDriver(o).run();
}

ReplicaApplier::Summary applyLogs(const TempDir& dir, ReplicaApplier::Conflicts conflicts,
                                  std::string* warnings) {
  Database replica(dir / "replica.fdb", false);
  ReplicaApplier applier(replica, conflicts);
  applier.onWarning([warnings](const std::string& w) {
    if (warnings) *warnings += w + "\n";
  });
  FollowPosition position = applier.position();
  std::vector<LogFile> logs = LogDirectory::list(dir / "logs");
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

int runKilled(const std::vector<std::string>& args, const std::string& err, int kills,
              const std::function<unsigned(int)>& delay) {
  for (int run = 0, killed = 0;; ++run) {
    const pid_t pid = spawn(args, "/dev/null", err);
    if (pid <= 0) return killed;
    if (run < kills) ::usleep(delay(run));
    const int status = run < kills ? stop(pid, SIGKILL) : waitFor(pid);
    if (status != -1) {
      EXPECT_EQ(0, status) << readText(err);
      return killed;
    }
    ++killed;
  }
}
