// JSON Lines, one object per row change or statement, in the shape of Debezium's change event
// envelope so that consumers written for it read these too:
//
//   {"before":null,"after":{"ID":5,"NAME":"Ada"},
//    "source":{"file":"000000006553f103_00000000000004d2.fbl","transaction":"1234",
//              "time":"2023-11-14T22:13:23Z","index":0},
//    "op":"c","table":"CUSTOMER","ts_ms":1700000003123,
//    "transaction":{"id":"1234","total_order":1,"data_collection_order":1}}
//
// op is "c", "u", "d", or "sql" for a statement, which carries "sql":{"text":...,"number":...} and
// a null table. Values are rendered by ValueRenderer. The 64-bit integers (BIGINT values, the
// statement number, source's transaction) are decimal strings, or numbers with bigintAsNumber;
// every other integer is below 2^32 and always a number.
//
// With transactions on, a BEGIN line comes before a log's events and an END line after them:
//
//   {"status":"END","id":"1234","file":"...","ts_ms":...,"event_count":4,
//    "data_collections":[{"data_collection":"CUSTOMER","event_count":3},
//                        {"data_collection":null,"event_count":1}]}
//
// data_collections groups the log's events by their "table", statements (table null) being one
// group, in the order each group first appears; within a group data_collection_order runs from 1
// to its event_count, and the groups' counts add up to the END's event_count.
#pragma once

#include <rapidjson/writer.h>

#include <string>
#include <utility>
#include <vector>

#include "EventWriter.h"
#include "JsonOutput.h"
#include "ValueRenderer.h"

class JsonEventWriter : public EventWriter {
 public:
  explicit JsonEventWriter(const EventFormat& format);

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  void endLog(const ChangeEvent& end) override;

  // Writes the last event again in place of its line, with values cut (or omitted, with omit)
  // beyond maxValueBytes: for a sink whose message would be too large.
  void rewriteLast(const ChangeEvent& event, std::size_t maxValueBytes, bool omit);

  std::string_view pending() const override { return buffer_.view(); }
  void clear() override { buffer_.clear(); }

 private:
  using Writer = rapidjson::Writer<JsonOutput>;
  struct Sink;

  // A value string, valid UTF-8 already.
  void string(std::string_view s) {
    writer_.RawValue("", 0, rapidjson::kStringType);
    buffer_.appendString(s);
  }
  // A name or statement from the log as a string value, made valid UTF-8.
  void name(std::string_view s);
  void image(const ChangeEvent& event, bool before);
  void write(const ChangeEvent& event, std::uint32_t order);
  void transactionId();
  // A BEGIN or END line up to its event_count key.
  void startMarker(const char* status);
  // The place of this event among the log's events of the same table, from 1.
  std::uint32_t countTable(std::string_view table);
  static std::int64_t nowMs();
  // A name from the log as a JSON string, escaped once and kept in cache at slot.
  const std::string& quoted(std::string_view raw, std::size_t slot,
                            std::vector<std::pair<std::string, std::string>>& cache);

  EventFormat format_;
  ValueRenderer renderer_;
  JsonOutput buffer_;
  Writer writer_;
  LogInfo log_;
  std::string time_;  // the log's time, formatted once
  std::string id_;    // the transaction number as text
  std::string scratch_;
  std::string sourcePrefix_;       // {"file":...,"transaction":...,"time":...,"index":
  std::string transactionPrefix_;  // {"id":"...","total_order":
  std::vector<std::pair<std::string, std::string>> fieldNames_;
  std::vector<std::pair<std::string, std::string>> relations_;
  std::vector<std::pair<std::string, std::uint32_t>> tables_;
  std::size_t lastTable_ = 0;
  std::uint32_t statements_ = 0;
  std::size_t statementsAt_ = 0;  // how many tables came before the first statement
  std::size_t lastStart_ = 0;     // where the last event's line begins in the buffer
  std::uint32_t lastOrder_ = 0;
};
