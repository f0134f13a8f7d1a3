// The metrics of one consumer of a log directory (a follower or an applier), for Prometheus: what
// it has taken (logs, events, bytes), what went wrong (errors, sink failures), the conflicts an
// applier resolved, how long a log's delivery took, and how far behind it is (lag, logs waiting,
// the publication time of the last log taken). Every sample carries the label consumer, named as
// status and prune name it (checkpoint:FILE, replica:DB, redis:HOST:PORT/PREFIX), so that a running
// consumer's metrics and status's textfile output are one series.
//
// Counters move once per log; the consumer's thread alone updates them, a scrape reads them from
// another thread. The lag is worked out when scraped, so that a consumer stuck on one log shows its
// lag growing.
//
//   auto metrics = std::make_shared<ConsumerMetrics>("checkpoint:/var/lib/fbcdc/f.pos");
//   metrics->setWaiting(queued, oldest);
//   metrics->logTaken(log, bytes, seconds);
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <prometheus/collectable.h>
#include <prometheus/counter.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include "LogFile.h"

class ConsumerMetrics : public prometheus::Collectable {
 public:
  // How far behind a consumer is, as status finds it and a running consumer knows it.
  struct Backlog {
    std::string consumer;
    std::int64_t lag = 0;  // nanoseconds
    std::uint64_t logsWaiting = 0;
    std::int64_t lastPublishedAt = 0;  // of the last log taken, nanoseconds; 0 when none
  };

  explicit ConsumerMetrics(std::string consumer);

  const std::string& consumer() const { return consumer_; }

  // The logs found and not yet taken, and the publication time of the oldest of them (0: none).
  void setWaiting(std::uint64_t logs, std::int64_t oldestPublishedAt);
  // The publication time of the last log taken, as a stored position says at start (0: none).
  void setLastPublished(std::int64_t publishedAt) { lastPublished_.store(publishedAt); }
  // A log taken whole: bytes long, delivered in seconds.
  void logTaken(const LogFile& log, std::uint64_t bytes, double seconds);
  // Events taken, of a table (a row change's relation; statements have none), or uncounted by
  // table.
  prometheus::Counter& events(std::string_view table);
  prometheus::Counter& events();
  void resolved(std::uint64_t conflicts) { resolved_->Increment(static_cast<double>(conflicts)); }
  void pruned(std::uint64_t logs) { pruned_->Increment(static_cast<double>(logs)); }
  // A log that could not be taken: damaged (it does not decode), or its delivery failed.
  void failed(bool damaged);

  // The families served: the counters and the histogram, and the backlog as of now.
  std::vector<prometheus::MetricFamily> Collect() const override;

  // The backlog families (lag, logs waiting, last publication time), one sample per consumer;
  // a consumer that has taken nothing has no last publication time.
  static std::vector<prometheus::MetricFamily> backlogFamilies(const std::vector<Backlog>& all);
  // Families in Prometheus's text format.
  static std::string text(const std::vector<prometheus::MetricFamily>& families);

  // Upper bounds of the delivery histogram's buckets, in seconds.
  static const std::vector<double>& deliveryBuckets();

 private:
  std::string consumer_;
  std::shared_ptr<prometheus::Registry> registry_;
  prometheus::Counter* logs_;
  prometheus::Counter* bytes_;
  prometheus::Counter* untabled_ = nullptr;  // made when first used: a follower counts by table
  prometheus::Counter* errors_;
  prometheus::Counter* sinkFailures_;
  prometheus::Counter* resolved_;
  prometheus::Counter* pruned_;
  prometheus::Histogram* delivery_;
  prometheus::Family<prometheus::Counter>* tableEvents_;
  // The consumer's thread alone looks tables up here.
  std::unordered_map<std::string, prometheus::Counter*> tables_;
  std::atomic<std::uint64_t> waiting_{0};
  std::atomic<std::int64_t> oldestWaiting_{0};
  std::atomic<std::int64_t> lastPublished_{0};
};
