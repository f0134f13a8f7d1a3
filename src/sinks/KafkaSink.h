// Publishes events to Kafka through librdkafka: a topic per table ("<prefix>.<TABLE>"), and
// statements and transaction markers on "<prefix>.transaction". Each message's value is the
// event's JSON line; its key is the row's primary key as JSON ({"ID":7}: the key columns' old
// values for an update or a delete, the new ones for an insert), so that every change of one row
// lands in one partition, in order, and a delete's tombstone matches the row's earlier messages.
//
// The log does not say which columns form a key; the caller names them per table. A table with
// no key named is keyed by its name, as a JSON string ("NOTES"): all its changes go to one
// partition, in order. Values that change would scatter one row's changes over partitions. Such a
// table gets no tombstones: in a compacted topic one would remove every message of the table.

//
// The producer is idempotent. endLog returns only when every message of the log has its delivery
// report, and throws when any delivery failed: a follower's checkpoint therefore never passes a
// log that did not arrive whole (at least once, never a gap).
#pragma once

#include <librdkafka/rdkafka.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "EventSink.h"
#include "JsonEventWriter.h"

class KafkaSink : public EventSink {
 public:
  enum class LargeValues { kFail, kTruncate, kOmit };

  struct Options {
    std::string brokers;
    std::string topicPrefix = "fbcdc";
    // Passed to librdkafka as they are (security, compression, batching, ...).
    std::vector<std::pair<std::string, std::string>> properties;
    // Primary key columns by table; a table not named, or named with no columns, is keyed by
    // its name.
    std::map<std::string, std::vector<std::string>> keys;
    // Told once per table that is keyed by its name, when its first message is produced.
    std::function<void(const std::string& table)> keyedByName;
    bool tombstones = false;  // a null-valued message after each delete
    LargeValues largeValues = LargeValues::kFail;
    std::size_t maxMessageBytes = 1000000;  // librdkafka's and the broker's default limit
    int deliveryTimeoutMs = 120000;
  };

  // Throws std::runtime_error when the producer cannot be configured, std::invalid_argument for a
  // property librdkafka does not take (its value left out of the text where it may be a secret).
  KafkaSink(const Options& options, const EventFormat& format);

  // The properties of a file as kcat's -F reads them: one KEY=VALUE a line, blanks around key and
  // value dropped, empty lines and lines starting with # passed over. Throws std::invalid_argument,
  // naming the file and the line's number (not its text, which may hold a secret), for a line of
  // another form or a file that cannot be read.
  static std::vector<std::pair<std::string, std::string>> readProperties(const std::string& path);
  ~KafkaSink() override;

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  void endLog(const ChangeEvent& end) override;

 private:
  static void onDelivery(rd_kafka_t*, const rd_kafka_message_t* message, void* opaque);
  void produce(const std::string& topic, const std::string& key, const char* value,
               std::size_t size);
  std::string keyOf(const ChangeEvent& e);
  bool keyedByColumns(std::string_view table) const;
  // Hands over the pending marker line (BEGIN or END), if there is one.
  void marker();

  Options options_;
  EventFormat format_;
  JsonEventWriter writer_;
  rd_kafka_t* producer_ = nullptr;
  LogInfo log_;
  std::size_t failures_ = 0;
  std::string firstFailure_;
  std::string keyBuffer_;
  // The table of the last event, its topic, and its key when it is keyed by its name.
  std::string lastTable_;
  std::string topic_;
  std::string nameKey_;
  bool lastKeyedByColumns_ = false;
  std::map<std::string, bool, std::less<>> keyedByName_;
};
