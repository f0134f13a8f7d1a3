// Publishes events to Kafka through librdkafka: a topic per table ("<prefix>.<TABLE>"), and
// statements and transaction markers on "<prefix>.transaction". Each message's value is the
// event's JSON line; its key is the row's primary key as JSON (the columns named for its table),
// or otherwise every value that identifies the row before the change (the new ones of an insert,
// the old ones of an update or delete; blobs and arrays left out), so that the changes of one row
// stay in order within one partition.
//
// The producer is idempotent. endLog returns only when every message of the log has its delivery
// report, and throws when any delivery failed: a follower's checkpoint therefore never passes a
// log that did not arrive whole (at least once, never a gap).
#pragma once

#include <librdkafka/rdkafka.h>

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
    // Primary key columns by table, for tables whose key the log cannot tell.
    std::map<std::string, std::vector<std::string>> keys;
    bool tombstones = false;  // a null-valued message after each delete
    LargeValues largeValues = LargeValues::kFail;
    std::size_t maxMessageBytes = 1000000;  // librdkafka's and the broker's default limit
    int deliveryTimeoutMs = 120000;
  };

  // Throws std::runtime_error when the producer cannot be configured.
  KafkaSink(const Options& options, const EventFormat& format);
  ~KafkaSink() override;

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  void endLog(const ChangeEvent& end) override;

 private:
  static void onDelivery(rd_kafka_t*, const rd_kafka_message_t* message, void* opaque);
  void produce(const std::string& topic, const std::string& key, const char* value,
               std::size_t size);
  std::string keyOf(const ChangeEvent& e);
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
};
