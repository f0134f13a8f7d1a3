#include "ConsumerUpkeep.h"

#include <sys/stat.h>
#include <time.h>

#include "Command.h"
#include "LogFormatError.h"
#include "Messages.h"

namespace fbcdc {

namespace {

using Clock = std::chrono::steady_clock;

std::int64_t nowNanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

}  // namespace

ConsumerUpkeep::ConsumerUpkeep(const char* command, Options options)
    : command_(command), options_(std::move(options)) {
  if (!options_.metrics.empty()) {
    metrics_ = std::make_shared<ConsumerMetrics>(options_.consumer);
    server_ = std::make_unique<MetricsServer>(options_.metrics, metrics_);
    Messages::print(Messages::Level::kInfo, std::string("fbcdc ") + command_ + ": metrics of " +
                                                options_.consumer + " at " + server_->url());
  }
  if (options_.prune) {
    pruner_ = std::make_unique<LogPruner>(options_.directory, LogPruner::Options{});
    lastPrune_ = Clock::now();
  }
}

void ConsumerUpkeep::started(const FollowPosition& position) {
  if (metrics_) metrics_->setLastPublished(position.publishedAt());
  if (pruner_) prune(position);
}

EventSink& ConsumerUpkeep::sink(EventSink& inner) {
  if (!metrics_) return inner;
  if (!sink_) sink_ = std::make_unique<MetricsSink>(inner, *metrics_);
  return *sink_;
}

void ConsumerUpkeep::take(const LogFile& log, std::uint64_t waiting,
                          const std::function<void()>& deliver) {
  if (!metrics_) return deliver();
  // Until it is taken, this log is the oldest not taken.
  metrics_->setWaiting(waiting + 1, log.publishedAt);
  struct stat st {};
  const std::uint64_t bytes = ::stat(log.path.c_str(), &st) == 0 ? st.st_size : 0;
  const Clock::time_point start = Clock::now();
  try {
    deliver();
  } catch (const LogFormatError&) {
    metrics_->failed(true);
    throw;
  } catch (...) {
    metrics_->failed(false);
    throw;
  }
  metrics_->logTaken(log, bytes, std::chrono::duration<double>(Clock::now() - start).count());
}

void ConsumerUpkeep::apply(ReplicaApplier& applier, const LogFile& log, std::uint64_t waiting,
                           const std::function<void()>& work) {
  const ReplicaApplier::Summary before = applier.summary();
  take(log, waiting, work);
  if (!metrics_) return;
  const ReplicaApplier::Summary& now = applier.summary();
  metrics_->events().Increment(
      static_cast<double>(now.rows + now.statements - before.rows - before.statements));
  metrics_->resolved(now.resolved - before.resolved);
}

void ConsumerUpkeep::taken(const FollowPosition& position, std::uint64_t waiting,
                           const LogFile* next) {
  if (metrics_) metrics_->setWaiting(waiting, next ? next->publishedAt : 0);
  if (!pruner_) return;
  // At the end of a batch, or now and then in a long one; after a failure only now and then.
  const bool due = Clock::now() - lastPrune_ >= std::chrono::seconds(kPruneSeconds);
  if (due || (waiting == 0 && lastProblem_.empty())) prune(position);
}

void ConsumerUpkeep::prune(const FollowPosition& position) {
  lastPrune_ = Clock::now();
  try {
    const LogPruner::Outcome o = pruner_->prune({{options_.consumer, position}}, nowNanoseconds());
    if (metrics_) metrics_->pruned(o.pruned.size());
    lastProblem_.clear();
  } catch (const std::exception& e) {
    // Logs that cannot go are no reason to stop taking logs: said once, tried again later.
    if (lastProblem_ != e.what())
      complain(command_, std::string("warning: cannot prune: ") + e.what());
    lastProblem_ = e.what();
  }
}

}  // namespace fbcdc
