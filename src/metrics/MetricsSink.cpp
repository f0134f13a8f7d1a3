#include "MetricsSink.h"

void MetricsSink::beginLog(const LogInfo& log) {
  tables_.clear();
  current_ = 0;
  inner_.beginLog(log);
}

void MetricsSink::event(const ChangeEvent& event) {
  inner_.event(event);
  const std::string_view table = event.isRowChange() ? event.relation : std::string_view();
  if (current_ >= tables_.size() || tables_[current_].first != table) {
    current_ = 0;
    while (current_ < tables_.size() && tables_[current_].first != table) ++current_;
    if (current_ == tables_.size()) tables_.emplace_back(std::string(table), 0);
  }
  ++tables_[current_].second;
}

void MetricsSink::endLog(const ChangeEvent& end) {
  inner_.endLog(end);
  for (const auto& [table, n] : tables_) metrics_.events(table).Increment(static_cast<double>(n));
}
