// What a long-running consumer (follow, apply) does beside its work, each when asked for: it
// serves its metrics (--metrics) and prunes the logs it has taken (--prune).
//
// Pruning is for this consumer alone, through LogPruner with its position as the only consumer: the
// same rules as fbcdc prune (logs of the position's own clock tick that it has not named, logs
// whose turn cannot be told and everything after it stay; the directory's prune mark records what
// went). It runs after the position is stored, when no log is waiting (the end of a batch) or, in a
// long backlog, every kPruneSeconds: each run lists the directory.
//
//   ConsumerUpkeep upkeep("follow", {directory, consumer, "127.0.0.1:9187", true});
//   upkeep.take(log, waiting, [&] { upkeep.sink(kafka).send(log); });
//   upkeep.taken(position, follower.waiting());
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "ConsumerMetrics.h"
#include "EventSink.h"
#include "FollowPosition.h"
#include "LogFile.h"
#include "LogPruner.h"
#include "MetricsServer.h"
#include "MetricsSink.h"
#include "ReplicaApplier.h"

namespace fbcdc {

class ConsumerUpkeep {
 public:
  struct Options {
    std::string directory;  // the directory consumed (for --prune)
    std::string consumer;   // as status names it: the metrics' label
    std::string metrics;    // the address to serve metrics on; empty: none
    bool prune = false;
  };

  // Starts the metrics server, saying where on stderr. Throws std::invalid_argument for an address
  // of the wrong form, std::runtime_error when it cannot be bound.
  ConsumerUpkeep(const char* command, Options options);

  // The sink to send a log's events through: one that counts them by table, when metrics are
  // served.
  EventSink& sink(EventSink& inner);
  // Before the first log, with the stored position: prunes what an earlier run took and had no
  // time to prune (stopped between storing its position and pruning).
  void started(const FollowPosition& position);
  // Runs deliver, which takes log whole, measuring it and counting it, its failure too; waiting:
  // the logs found and not taken after it.
  void take(const LogFile& log, std::uint64_t waiting, const std::function<void()>& deliver);
  // Runs work, which applies log (with the logs published right after it that its order needs)
  // through applier, as take does, counting the events and the conflicts resolved.
  void apply(ReplicaApplier& applier, const LogFile& log, std::uint64_t waiting,
             const std::function<void()>& work);
  // After the position has moved past a log and been stored: the logs still waiting (next the
  // first of them, or null), and pruning when it is time.
  void taken(const FollowPosition& position, std::uint64_t waiting, const LogFile* next);
  void taken(const FollowPosition& position, const std::deque<LogFile>& waiting) {
    taken(position, waiting.size(), waiting.empty() ? nullptr : &waiting.front());
  }

  ConsumerMetrics* metrics() { return metrics_.get(); }
  // Seconds between prunes while logs are waiting.
  static constexpr int kPruneSeconds = 10;

 private:
  void prune(const FollowPosition& position);

  const char* command_;
  Options options_;
  std::shared_ptr<ConsumerMetrics> metrics_;
  std::unique_ptr<MetricsServer> server_;
  std::unique_ptr<MetricsSink> sink_;
  std::unique_ptr<LogPruner> pruner_;
  std::chrono::steady_clock::time_point lastPrune_;
  std::string lastProblem_;  // said once while it lasts
};

}  // namespace fbcdc
