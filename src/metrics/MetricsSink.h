// A sink that counts the events of each log by table on their way to another sink, and adds them to
// a consumer's metrics once the other sink has taken the whole log (so that a log whose delivery
// failed is not counted).
//
// Per event it compares the event's table with the one before (events of one table come in runs);
// only a change of table looks among the log's tables, and the metrics' counters are looked up once
// per table of a log.
//
//   MetricsSink counted(kafka, metrics);
//   counted.send(log);
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "ConsumerMetrics.h"
#include "EventSink.h"

class MetricsSink : public EventSink {
 public:
  // inner and metrics must outlive the sink.
  MetricsSink(EventSink& inner, ConsumerMetrics& metrics) : inner_(inner), metrics_(metrics) {}

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  void endLog(const ChangeEvent& end) override;

  bool keepsPosition() const override { return inner_.keepsPosition(); }
  std::string loadPosition() override { return inner_.loadPosition(); }
  void setPositionAfterLog(const std::string& serialized) override {
    inner_.setPositionAfterLog(serialized);
  }

 private:
  EventSink& inner_;
  ConsumerMetrics& metrics_;
  // The current log's tables and their counts; current_ indexes the last event's table.
  std::vector<std::pair<std::string, std::uint64_t>> tables_;
  std::size_t current_ = 0;
};
