#include "JsonEventWriter.h"

#include <time.h>

struct JsonEventWriter::Sink {
  Writer& w;
  void null() { w.Null(); }
  void boolean(bool b) { w.Bool(b); }
  void integer(std::int64_t i) { w.Int64(i); }
  void real(double d) { w.Double(d); }
  void string(std::string_view s) { w.String(s.data(), static_cast<unsigned>(s.size())); }
};

JsonEventWriter::JsonEventWriter(const EventFormat& format)
    : format_(format), renderer_(format_), writer_(buffer_) {}

std::int64_t JsonEventWriter::nowMs() {
  // The coarse clock is a few milliseconds behind at most and costs no system call.
  timespec ts;
  clock_gettime(CLOCK_REALTIME_COARSE, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void JsonEventWriter::name(std::string_view s, bool key) {
  scratch_.clear();
  CharacterSets::appendValidUtf8(s, scratch_);
  if (key)
    writer_.Key(scratch_.data(), static_cast<unsigned>(scratch_.size()));
  else
    string(scratch_);
}

void JsonEventWriter::transactionId() {
  writer_.Key("id");
  string(id_);
}

void JsonEventWriter::beginLog(const LogInfo& log) {
  log_ = log;
  time_.clear();
  ValueText::appendIsoUtc(time_, log.time);
  id_ = std::to_string(log.transaction);
  tables_.clear();
  lastTable_ = 0;
  statements_ = 0;
  if (!format_.transactions) return;
  writer_.Reset(buffer_);
  writer_.StartObject();
  writer_.Key("status");
  writer_.String("BEGIN");
  transactionId();
  writer_.Key("file");
  string(log_.file);
  writer_.Key("ts_ms");
  writer_.Int64(nowMs());
  writer_.Key("event_count");
  writer_.Null();
  writer_.Key("data_collections");
  writer_.Null();
  writer_.EndObject();
  buffer_.Put('\n');
}

std::uint32_t JsonEventWriter::countTable(std::string_view table) {
  // A log touches few tables, and mostly the same one several times in a row.
  if (lastTable_ < tables_.size() && tables_[lastTable_].first == table)
    return ++tables_[lastTable_].second;
  for (std::size_t i = 0; i < tables_.size(); ++i) {
    if (tables_[i].first == table) {
      lastTable_ = i;
      return ++tables_[i].second;
    }
  }
  lastTable_ = tables_.size();
  tables_.emplace_back(std::string(table), 1);
  return 1;
}

void JsonEventWriter::image(const ChangeEvent& event, bool before) {
  using Kind = ChangeEvent::Kind;
  const bool none = event.kind == Kind::kSql || (before && event.kind == Kind::kInsert) ||
                    (!before && event.kind == Kind::kDelete);
  if (none) {
    writer_.Null();
    return;
  }
  Sink sink{writer_};
  writer_.StartObject();
  for (const FieldChange& f : event.fields) {
    name(f.name, true);
    renderer_.render(before ? f.before : f.after, sink);
  }
  writer_.EndObject();
}

void JsonEventWriter::event(const ChangeEvent& event) {
  lastStart_ = buffer_.GetSize();
  lastOrder_ = event.kind == ChangeEvent::Kind::kSql ? ++statements_ : countTable(event.relation);
  write(event, lastOrder_);
}

void JsonEventWriter::rewriteLast(const ChangeEvent& event, std::size_t maxValueBytes, bool omit) {
  buffer_.Pop(buffer_.GetSize() - lastStart_);
  const EventFormat saved = format_;
  format_.maxValueBytes = maxValueBytes;
  format_.omitLarge = omit;
  write(event, lastOrder_);
  format_ = saved;
}

void JsonEventWriter::write(const ChangeEvent& event, std::uint32_t order) {
  using Kind = ChangeEvent::Kind;
  writer_.Reset(buffer_);
  writer_.StartObject();
  writer_.Key("before");
  image(event, true);
  writer_.Key("after");
  image(event, false);

  writer_.Key("source");
  writer_.StartObject();
  writer_.Key("file");
  string(log_.file);
  writer_.Key("transaction");
  writer_.Uint64(log_.transaction);
  writer_.Key("time");
  string(time_);
  writer_.Key("index");
  writer_.Uint(event.index);
  writer_.EndObject();

  static const char* const kOps[] = {"c", "u", "d", "sql"};
  writer_.Key("op");
  writer_.String(kOps[static_cast<int>(event.kind)]);
  writer_.Key("table");
  if (event.kind == Kind::kSql) {
    writer_.Null();
    writer_.Key("sql");
    writer_.StartObject();
    writer_.Key("text");
    name(event.sqlText, false);
    writer_.Key("number");
    writer_.Int64(event.sqlNumber);
    writer_.EndObject();
  } else {
    name(event.relation, false);
  }
  writer_.Key("ts_ms");
  writer_.Int64(nowMs());
  writer_.Key("transaction");
  writer_.StartObject();
  transactionId();
  writer_.Key("total_order");
  writer_.Uint(event.index + 1);
  writer_.Key("data_collection_order");
  writer_.Uint(order);
  writer_.EndObject();
  writer_.EndObject();
  buffer_.Put('\n');
}

void JsonEventWriter::endLog(const ChangeEvent& end) {
  if (!format_.transactions) return;
  writer_.Reset(buffer_);
  writer_.StartObject();
  writer_.Key("status");
  writer_.String("END");
  transactionId();
  writer_.Key("file");
  string(log_.file);
  writer_.Key("ts_ms");
  writer_.Int64(nowMs());
  writer_.Key("event_count");
  writer_.Uint(end.index);
  writer_.Key("data_collections");
  writer_.StartArray();
  for (const auto& table : tables_) {
    writer_.StartObject();
    writer_.Key("data_collection");
    name(table.first, false);
    writer_.Key("event_count");
    writer_.Uint(table.second);
    writer_.EndObject();
  }
  writer_.EndArray();
  writer_.EndObject();
  buffer_.Put('\n');
}
