#include "JsonEventWriter.h"

#include <time.h>

#include <charconv>
#include <cstring>

// The values of a row image, written straight into the output in the text RapidJSON's writer
// would give them.
struct JsonEventWriter::Sink {
  JsonOutput& out;
  void null() { out.append("null", 4); }
  void boolean(bool b) { b ? out.append("true", 4) : out.append("false", 5); }
  void integer(std::int64_t i) { out.appendInteger(i); }
  void real(double d) { out.appendDouble(d); }
  void string(std::string_view s) { out.appendString(s); }
  void plain(std::string_view s) {
    out.Put('"');
    out.append(s);
    out.Put('"');
  }
};

JsonEventWriter::JsonEventWriter(const EventFormat& format)
    : format_(format), renderer_(format_), writer_(buffer_) {}

std::int64_t JsonEventWriter::nowMs() {
  // The coarse clock is a few milliseconds behind at most and costs no system call.
  timespec ts;
  clock_gettime(CLOCK_REALTIME_COARSE, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void JsonEventWriter::name(std::string_view s) {
  scratch_.clear();
  CharacterSets::appendValidUtf8(s, scratch_);
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
  {
    JsonOutput out;
    Writer w(out);
    w.StartObject();
    w.Key("file");
    w.String(log.file.data(), static_cast<unsigned>(log.file.size()));
    w.Key("transaction");
    if (format_.bigintAsNumber)
      w.Uint64(log.transaction);
    else
      w.String(id_.data(), static_cast<unsigned>(id_.size()));
    w.Key("time");
    w.String(time_.data(), static_cast<unsigned>(time_.size()));
    sourcePrefix_.assign(out.view());
    sourcePrefix_ += ",\"index\":";
    transactionPrefix_ = "{\"id\":\"" + id_ + "\",\"total_order\":";
  }
  tables_.clear();
  lastTable_ = 0;
  statements_ = 0;
  statementsAt_ = 0;
  if (!format_.transactions) return;
  startMarker("BEGIN");
  writer_.Null();
  writer_.Key("data_collections");
  writer_.Null();
  writer_.EndObject();
  buffer_.Put('\n');
}

void JsonEventWriter::startMarker(const char* status) {
  writer_.Reset(buffer_);
  writer_.StartObject();
  writer_.Key("status");
  writer_.String(status);
  transactionId();
  writer_.Key("file");
  string(log_.file);
  writer_.Key("ts_ms");
  writer_.Int64(nowMs());
  writer_.Key("event_count");
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
    buffer_.append("null", 4);
    return;
  }
  Sink sink{buffer_};
  buffer_.Put('{');
  std::size_t slot = 0;
  for (const FieldChange& f : event.fields) {
    if (slot > 0) buffer_.Put(',');
    // A table's fields come in the same order event after event: each name is escaped once.
    buffer_.append(quoted(f.name, slot++, fieldNames_));
    buffer_.Put(':');
    renderer_.render(before ? f.before : f.after, sink);
  }
  buffer_.Put('}');
}

void JsonEventWriter::event(const ChangeEvent& event) {
  lastStart_ = buffer_.size();
  if (event.kind == ChangeEvent::Kind::kSql) {
    if (statements_ == 0) statementsAt_ = tables_.size();
    lastOrder_ = ++statements_;
  } else {
    lastOrder_ = countTable(event.relation);
  }
  write(event, lastOrder_);
}

void JsonEventWriter::rewriteLast(const ChangeEvent& event, std::size_t maxValueBytes, bool omit) {
  buffer_.resize(lastStart_);
  const EventFormat saved = format_;
  format_.maxValueBytes = maxValueBytes;
  format_.omitLarge = omit;
  write(event, lastOrder_);
  format_ = saved;
}

// An event's line is written straight into the output, every key and every piece that stays the
// same through the log as ready text: escaping and placing them again for every event would be
// most of the writer's work. The text is what RapidJSON's writer gives for the same object.
void JsonEventWriter::write(const ChangeEvent& event, std::uint32_t order) {
  using Kind = ChangeEvent::Kind;
  buffer_.append(std::string_view("{\"before\":"));
  image(event, true);
  buffer_.append(std::string_view(",\"after\":"));
  image(event, false);
  buffer_.append(std::string_view(",\"source\":"));
  buffer_.append(sourcePrefix_);
  buffer_.appendUnsigned(event.index);
  const bool read = log_.snapshot && event.kind == Kind::kInsert;
  if (read) {
    buffer_.append(static_cast<std::int64_t>(event.index) == log_.lastRow
                       ? std::string_view(",\"snapshot\":\"last\"")
                       : std::string_view(",\"snapshot\":\"true\""));
  }
  static const std::string_view kOps[] = {
      "},\"op\":\"c\",\"table\":", "},\"op\":\"u\",\"table\":", "},\"op\":\"d\",\"table\":",
      "},\"op\":\"sql\",\"table\":"};
  buffer_.append(read ? std::string_view("},\"op\":\"r\",\"table\":")
                      : kOps[static_cast<int>(event.kind)]);
  if (event.kind == Kind::kSql) {
    buffer_.append(std::string_view("null,\"sql\":{\"text\":"));
    scratch_.clear();
    CharacterSets::appendValidUtf8(event.sqlText, scratch_);
    buffer_.appendString(scratch_);
    buffer_.append(std::string_view(",\"number\":"));
    if (format_.bigintAsNumber) {
      buffer_.appendInteger(event.sqlNumber);
    } else {
      buffer_.Put('"');
      buffer_.appendInteger(event.sqlNumber);
      buffer_.Put('"');
    }
    buffer_.Put('}');
  } else {
    buffer_.append(quoted(event.relation, 0, relations_));
  }
  buffer_.append(std::string_view(",\"ts_ms\":"));
  buffer_.appendInteger(nowMs());
  buffer_.append(std::string_view(",\"transaction\":"));
  buffer_.append(transactionPrefix_);
  buffer_.appendUnsigned(event.index + 1);
  buffer_.append(std::string_view(",\"data_collection_order\":"));
  buffer_.appendUnsigned(order);
  buffer_.append(std::string_view("}}\n"));
}

const std::string& JsonEventWriter::quoted(
    std::string_view raw, std::size_t slot,
    std::vector<std::pair<std::string, std::string>>& cache) {
  if (slot < cache.size() && cache[slot].first == raw) return cache[slot].second;
  if (slot >= cache.size()) cache.resize(slot + 1);
  std::string valid;
  CharacterSets::appendValidUtf8(raw, valid);
  JsonOutput out;
  out.appendString(valid);
  cache[slot] = {std::string(raw), std::string(out.view())};
  return cache[slot].second;
}

void JsonEventWriter::endLog(const ChangeEvent& end) {
  if (!format_.transactions) return;
  startMarker("END");
  writer_.Uint(end.index);
  writer_.Key("data_collections");
  writer_.StartArray();
  // The statements' entry, whose data_collection is null as their events' table is, stands where
  // the first statement came among the tables.
  auto entry = [this](const std::string* table, std::uint32_t count) {
    writer_.StartObject();
    writer_.Key("data_collection");
    if (table)
      name(*table);
    else
      writer_.Null();
    writer_.Key("event_count");
    writer_.Uint(count);
    writer_.EndObject();
  };
  for (std::size_t i = 0; i <= tables_.size(); ++i) {
    if (statements_ > 0 && i == statementsAt_) entry(nullptr, statements_);
    if (i < tables_.size()) entry(&tables_[i].first, tables_[i].second);
  }
  writer_.EndArray();
  writer_.EndObject();
  buffer_.Put('\n');
}
