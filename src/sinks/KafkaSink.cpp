#include "KafkaSink.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "CharacterSets.h"
#include "JsonOutput.h"
#include "ValueRenderer.h"

namespace {

struct KeySink {
  rapidjson::Writer<JsonOutput>& w;
  void null() { w.Null(); }
  void boolean(bool b) { w.Bool(b); }
  void integer(std::int64_t i) { w.Int64(i); }
  void real(double d) { w.Double(d); }
  void string(std::string_view s) { w.String(s.data(), static_cast<unsigned>(s.size())); }
};

// Whether a property's value may be a secret, which no message repeats.
bool secret(const std::string& name) {
  for (const char* word : {"password", "secret", "jaas", "key.pem", "token"})
    if (name.find(word) != std::string::npos) return true;
  return false;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

std::vector<std::pair<std::string, std::string>> KafkaSink::readProperties(
    const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::invalid_argument(path + ": " + std::strerror(errno));
  std::vector<std::pair<std::string, std::string>> properties;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const std::string text = trimmed(line);
    if (text.empty() || text[0] == '#') continue;
    const std::size_t equals = text.find('=');
    const std::string key = equals == std::string::npos ? "" : trimmed(text.substr(0, equals));
    if (key.empty())
      throw std::invalid_argument(path + " line " + std::to_string(number) +
                                  ": not KEY=VALUE (# starts a comment)");
    properties.emplace_back(key, trimmed(text.substr(equals + 1)));
  }
  if (in.bad()) throw std::invalid_argument(path + ": " + std::strerror(errno));
  return properties;
}

KafkaSink::KafkaSink(const Options& options, const EventFormat& format)
    : options_(options), format_(format), writer_(format) {
  char error[512];
  rd_kafka_conf_t* conf = rd_kafka_conf_new();
  auto set = [&](const std::string& name, const std::string& value) {
    if (rd_kafka_conf_set(conf, name.c_str(), value.c_str(), error, sizeof error) !=
        RD_KAFKA_CONF_OK) {
      rd_kafka_conf_destroy(conf);
      // A setting librdkafka does not take is the user's wrong argument, not a failure.
      throw std::invalid_argument("Kafka setting " + name + "=" +
                                  (secret(name) ? std::string("(hidden)") : value) + ": " + error);
    }
  };
  set("bootstrap.servers", options.brokers);
  // Retries never reorder or duplicate messages within a partition.
  set("enable.idempotence", "true");
  set("message.timeout.ms", std::to_string(options.deliveryTimeoutMs));
  for (const auto& p : options.properties) set(p.first, p.second);
  rd_kafka_conf_set_dr_msg_cb(conf, onDelivery);
  rd_kafka_conf_set_opaque(conf, this);
  producer_ = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof error);
  if (!producer_) throw std::runtime_error(std::string("cannot create a Kafka producer: ") + error);
}

KafkaSink::~KafkaSink() {
  rd_kafka_flush(producer_, 10000);
  rd_kafka_destroy(producer_);
}

void KafkaSink::onDelivery(rd_kafka_t*, const rd_kafka_message_t* message, void* opaque) {
  auto* self = static_cast<KafkaSink*>(opaque);
  if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) return;
  if (self->failures_++ == 0) {
    self->firstFailure_ =
        std::string(rd_kafka_topic_name(message->rkt)) + ": " + rd_kafka_err2str(message->err);
  }
}

void KafkaSink::produce(const std::string& topic, const std::string& key, const char* value,
                        std::size_t size) {
  for (;;) {
    const rd_kafka_resp_err_t err =
        rd_kafka_producev(producer_, RD_KAFKA_V_TOPIC(topic.c_str()),
                          RD_KAFKA_V_KEY(const_cast<char*>(key.data()), key.size()),
                          RD_KAFKA_V_VALUE(const_cast<char*>(value), size),
                          RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY), RD_KAFKA_V_END);
    if (err == RD_KAFKA_RESP_ERR_NO_ERROR) break;
    // A full queue drains as deliveries are reported; anything else is a failure.
    if (err != RD_KAFKA_RESP_ERR__QUEUE_FULL)
      throw std::runtime_error("log " + log_.file + ": cannot produce to " + topic + ": " +
                               rd_kafka_err2str(err));
    rd_kafka_poll(producer_, 100);
  }
  rd_kafka_poll(producer_, 0);
}

void KafkaSink::marker() {
  std::string_view line = writer_.pending();
  if (!line.empty()) {
    line.remove_suffix(1);  // the newline
    produce(options_.topicPrefix + ".transaction", std::to_string(log_.transaction), line.data(),
            line.size());
  }
  writer_.clear();
}

void KafkaSink::beginLog(const LogInfo& log) {
  log_ = log;
  failures_ = 0;
  firstFailure_.clear();
  writer_.beginLog(log);
  marker();
}

std::string KafkaSink::keyOf(const ChangeEvent& e) {
  const auto named = options_.keys.find(std::string(e.relation));
  if (named == options_.keys.end() || named->second.empty()) {
    if (keyedByName_.find(e.relation) == keyedByName_.end()) {
      keyedByName_.emplace(std::string(e.relation), true);
      if (options_.keyedByName) options_.keyedByName(std::string(e.relation));
    }
    keyBuffer_.clear();
    CharacterSets::appendValidUtf8(e.relation, keyBuffer_);
    JsonOutput buffer;
    rapidjson::Writer<JsonOutput> w(buffer);
    w.String(keyBuffer_.data(), static_cast<unsigned>(keyBuffer_.size()));
    return std::string(buffer.view());
  }
  const bool useNew = e.kind == ChangeEvent::Kind::kInsert;
  JsonOutput buffer;
  rapidjson::Writer<JsonOutput> w(buffer);
  KeySink sink{w};
  // Keys are rendered in one fixed form whatever the output options, so that a follower started
  // again with other options keeps every row in its partition.
  static const EventFormat kKeyFormat;
  ValueRenderer renderer(kKeyFormat);
  w.StartObject();
  for (const std::string& column : named->second) {
    bool found = false;
    for (const FieldChange& f : e.fields) {
      if (f.name != column) continue;
      found = true;
      const FieldValue& v = useNew || !f.before.present() ? f.after : f.before;
      keyBuffer_.clear();
      CharacterSets::appendValidUtf8(f.name, keyBuffer_);
      w.Key(keyBuffer_.data(), static_cast<unsigned>(keyBuffer_.size()));
      renderer.render(v, sink);
    }
    // A key short of a column would put rows together, and a tombstone would remove them all.
    if (!found)
      throw std::runtime_error("log " + log_.file + ", event " + std::to_string(e.index) +
                               ": the key column " + column + " of table " +
                               std::string(e.relation) + " is not in the event (see --key)");
  }
  w.EndObject();
  return std::string(buffer.view());
}

bool KafkaSink::keyedByColumns(std::string_view table) const {
  const auto named = options_.keys.find(std::string(table));
  return named != options_.keys.end() && !named->second.empty();
}

void KafkaSink::event(const ChangeEvent& e) {
  writer_.event(e);
  if (writer_.pending().size() - 1 > options_.maxMessageBytes) {
    const std::size_t size = writer_.pending().size() - 1;
    // Cut every value to a share of the limit, or leave the large ones out, as asked.
    if (options_.largeValues != LargeValues::kFail) {
      const std::size_t share = options_.maxMessageBytes / (2 * (e.fields.size() + 1));
      writer_.rewriteLast(e, share, options_.largeValues == LargeValues::kOmit);
    }
    if (writer_.pending().size() - 1 > options_.maxMessageBytes) {
      throw std::runtime_error("log " + log_.file + ", event " + std::to_string(e.index) +
                               ": the message is " + std::to_string(size) +
                               " bytes, more than the limit of " +
                               std::to_string(options_.maxMessageBytes) + " (see --large-values)");
    }
  }
  std::string_view line = writer_.pending();
  line.remove_suffix(1);
  if (e.kind == ChangeEvent::Kind::kSql) {
    produce(options_.topicPrefix + ".transaction", std::to_string(log_.transaction), line.data(),
            line.size());
  } else {
    // A log's events mostly come from one table after another: the topic, and the key of a table
    // keyed by its name, are made once per run of events of the same table, not once per event.
    if (e.relation != lastTable_ || topic_.empty()) {
      lastTable_.assign(e.relation);
      topic_ = options_.topicPrefix + "." + lastTable_;
      lastKeyedByColumns_ = keyedByColumns(e.relation);
      nameKey_ = lastKeyedByColumns_ ? std::string() : keyOf(e);
    }
    const std::string key = lastKeyedByColumns_ ? keyOf(e) : std::string();
    const std::string& k = lastKeyedByColumns_ ? key : nameKey_;
    produce(topic_, k, line.data(), line.size());
    if (options_.tombstones && e.kind == ChangeEvent::Kind::kDelete && lastKeyedByColumns_)
      produce(topic_, k, nullptr, 0);
  }
  writer_.clear();
}

void KafkaSink::endLog(const ChangeEvent& end) {
  writer_.endLog(end);
  marker();
  // The log counts as delivered only when every message of it is.
  rd_kafka_flush(producer_, options_.deliveryTimeoutMs + 5000);
  if (rd_kafka_outq_len(producer_) > 0)
    throw std::runtime_error("log " + log_.file + ": deliveries not confirmed in time");
  char reason[512];
  if (rd_kafka_fatal_error(producer_, reason, sizeof reason) != RD_KAFKA_RESP_ERR_NO_ERROR)
    throw std::runtime_error("log " + log_.file + ": the Kafka producer failed: " + reason);
  if (failures_ > 0) {
    throw std::runtime_error("log " + log_.file + ": " + std::to_string(failures_) +
                             " messages not delivered, the first to " + firstFailure_);
  }
}
