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
};

void JsonEventWriter::raw(const char* json, std::size_t size, rapidjson::Type type) {
  // The writer places the separator and keeps count; the text itself is copied whole.
  writer_.RawValue("", 0, type);
  buffer_.append(json, size);
}

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
    writer_.Null();
    return;
  }
  // The object is written whole into the output, its separators too: the writer only places the
  // separator before it.
  Sink sink{buffer_};
  writer_.RawValue("", 0, rapidjson::kObjectType);
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

// Keys and values that are the same in every event go in as ready JSON text: escaping them again
// for every event would be most of the writer's work.
#define FBCDC_RAW_KEY(text) raw("\"" text "\"", sizeof(text) + 1, rapidjson::kStringType)

void JsonEventWriter::write(const ChangeEvent& event, std::uint32_t order) {
  using Kind = ChangeEvent::Kind;
  writer_.Reset(buffer_);
  writer_.StartObject();
  FBCDC_RAW_KEY("before");
  image(event, true);
  FBCDC_RAW_KEY("after");
  image(event, false);

  // The source and transaction objects are made in place: the parts that stay the same through
  // the log are ready text, and the numbers go straight into the output.
  FBCDC_RAW_KEY("source");
  writer_.RawValue("", 0, rapidjson::kObjectType);
  buffer_.append(sourcePrefix_);
  buffer_.appendUnsigned(event.index);
  const bool read = log_.snapshot && event.kind == Kind::kInsert;
  if (read) {
    buffer_.append(static_cast<std::int64_t>(event.index) == log_.lastRow
                       ? std::string_view(",\"snapshot\":\"last\"")
                       : std::string_view(",\"snapshot\":\"true\""));
  }
  buffer_.Put('}');

  static const char* const kOps[] = {"\"c\"", "\"u\"", "\"d\"", "\"sql\""};
  FBCDC_RAW_KEY("op");
  const char* op = read ? "\"r\"" : kOps[static_cast<int>(event.kind)];
  raw(op, std::strlen(op), rapidjson::kStringType);
  FBCDC_RAW_KEY("table");
  if (event.kind == Kind::kSql) {
    writer_.Null();
    FBCDC_RAW_KEY("sql");
    writer_.StartObject();
    FBCDC_RAW_KEY("text");
    name(event.sqlText);
    FBCDC_RAW_KEY("number");
    if (format_.bigintAsNumber) {
      writer_.Int64(event.sqlNumber);
    } else {
      char digits[24];
      string(ValueRenderer::integerText(event.sqlNumber, digits));
    }
    writer_.EndObject();
  } else {
    const std::string& table = quoted(event.relation, 0, relations_);
    raw(table.data(), table.size(), rapidjson::kStringType);
  }
  FBCDC_RAW_KEY("ts_ms");
  writer_.Int64(nowMs());
  FBCDC_RAW_KEY("transaction");
  writer_.RawValue("", 0, rapidjson::kObjectType);
  buffer_.append(transactionPrefix_);
  buffer_.appendUnsigned(event.index + 1);
  buffer_.append(std::string_view(",\"data_collection_order\":"));
  buffer_.appendUnsigned(order);
  buffer_.Put('}');
  writer_.EndObject();
  buffer_.Put('\n');
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
