#include "ConsumerMetrics.h"

#include <time.h>

#include <prometheus/gauge.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <sstream>

namespace {

constexpr double kSecond = 1e9;

std::int64_t now() {
  timespec t{};
  ::clock_gettime(CLOCK_REALTIME, &t);
  return static_cast<std::int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

prometheus::MetricFamily gaugeFamily(const char* name, const char* help) {
  prometheus::MetricFamily f;
  f.name = name;
  f.help = help;
  f.type = prometheus::MetricType::Gauge;
  return f;
}

prometheus::ClientMetric gauge(const std::string& consumer, double value) {
  prometheus::ClientMetric m;
  m.label.push_back({"consumer", consumer});
  m.gauge.value = value;
  return m;
}

}  // namespace

ConsumerMetrics::ConsumerMetrics(std::string consumer)
    : consumer_(std::move(consumer)), registry_(std::make_shared<prometheus::Registry>()) {
  const prometheus::Labels labels{{"consumer", consumer_}};
  const auto counter = [&](const char* name, const char* help) {
    return &prometheus::BuildCounter().Name(name).Help(help).Register(*registry_).Add(labels);
  };
  logs_ = counter("fbcdc_logs_total", "Logs taken whole.");
  bytes_ = counter("fbcdc_bytes_total", "Bytes of the logs taken.");
  errors_ = counter("fbcdc_errors_total",
                    "Logs that could not be taken: damaged, unreadable, or not delivered.");
  sinkFailures_ = counter("fbcdc_sink_failures_total",
                          "Deliveries the sink (Kafka, Redis, the output, the replica) failed.");
  resolved_ = counter("fbcdc_conflicts_resolved_total",
                      "Rows an applier found otherwise than the log expects and resolved.");
  pruned_ = counter("fbcdc_logs_pruned_total", "Logs this consumer pruned after taking them.");
  auto& events = prometheus::BuildCounter()
                     .Name("fbcdc_events_total")
                     .Help("Events taken: row changes by table; statements have an empty table.")
                     .Register(*registry_);
  tableEvents_ = &events;
  delivery_ = &prometheus::BuildHistogram()
                   .Name("fbcdc_sink_delivery_seconds")
                   .Help("Time to deliver one log's events to the sink (or apply it).")
                   .Register(*registry_)
                   .Add(labels, deliveryBuckets());
}

const std::vector<double>& ConsumerMetrics::deliveryBuckets() {
  static const std::vector<double> buckets = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                              0.1,    0.25,  0.5,    1,     2.5,  5,     10};
  return buckets;
}

void ConsumerMetrics::setWaiting(std::uint64_t logs, std::int64_t oldestPublishedAt) {
  waiting_.store(logs, std::memory_order_relaxed);
  oldestWaiting_.store(oldestPublishedAt, std::memory_order_relaxed);
}

void ConsumerMetrics::logTaken(const LogFile& log, std::uint64_t bytes, double seconds) {
  logs_->Increment();
  bytes_->Increment(static_cast<double>(bytes));
  delivery_->Observe(seconds);
  lastPublished_.store(log.publishedAt, std::memory_order_relaxed);
}

prometheus::Counter& ConsumerMetrics::events(std::string_view table) {
  // One lookup per table of a log, not per event; the family's own lookup once per table ever.
  auto found = tables_.find(std::string(table));
  if (found != tables_.end()) return *found->second;
  prometheus::Counter& c =
      tableEvents_->Add({{"consumer", consumer_}, {"table", std::string(table)}});
  tables_.emplace(std::string(table), &c);
  return c;
}

prometheus::Counter& ConsumerMetrics::events() {
  if (!untabled_) untabled_ = &tableEvents_->Add({{"consumer", consumer_}});
  return *untabled_;
}

void ConsumerMetrics::failed(bool damaged) {
  errors_->Increment();
  if (!damaged) sinkFailures_->Increment();
}

std::vector<prometheus::MetricFamily> ConsumerMetrics::Collect() const {
  std::vector<prometheus::MetricFamily> families = registry_->Collect();
  Backlog b;
  b.consumer = consumer_;
  b.logsWaiting = waiting_.load(std::memory_order_relaxed);
  const std::int64_t oldest = oldestWaiting_.load(std::memory_order_relaxed);
  b.lag = oldest == 0 ? 0 : std::max<std::int64_t>(0, now() - oldest);
  b.lastPublishedAt = lastPublished_.load(std::memory_order_relaxed);
  for (prometheus::MetricFamily& f : backlogFamilies({b})) families.push_back(std::move(f));
  return families;
}

std::vector<prometheus::MetricFamily> ConsumerMetrics::backlogFamilies(
    const std::vector<Backlog>& all) {
  prometheus::MetricFamily lag = gaugeFamily(
      "fbcdc_lag_seconds",
      "Now minus the publication time of the oldest log the consumer has not taken; 0 when none.");
  prometheus::MetricFamily waiting =
      gaugeFamily("fbcdc_logs_waiting", "Published logs the consumer has not taken yet.");
  prometheus::MetricFamily last =
      gaugeFamily("fbcdc_last_log_published_timestamp_seconds",
                  "Publication time of the last log the consumer took, since 1970-01-01 UTC.");
  for (const Backlog& b : all) {
    lag.metric.push_back(gauge(b.consumer, static_cast<double>(b.lag) / kSecond));
    waiting.metric.push_back(gauge(b.consumer, static_cast<double>(b.logsWaiting)));
    if (b.lastPublishedAt != 0)
      last.metric.push_back(gauge(b.consumer, static_cast<double>(b.lastPublishedAt) / kSecond));
  }
  std::vector<prometheus::MetricFamily> families{std::move(lag), std::move(waiting)};
  if (!last.metric.empty()) families.push_back(std::move(last));
  return families;
}

std::string ConsumerMetrics::text(const std::vector<prometheus::MetricFamily>& families) {
  std::ostringstream out;
  prometheus::TextSerializer().Serialize(out, families);
  return out.str();
}
