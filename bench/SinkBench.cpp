// The sinks of fbcdc follow beside dump to a file and beside their clients' own limits, on the
// same log of 10-field inserts: Kafka through librdkafka to its mock cluster in this process, and
// Redis Streams to a redis-server started on a free loopback port for the run.
#include <sys/stat.h>
#include <unistd.h>

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "BenchSupport.h"
#include "KafkaSink.h"
#include "LogDecoder.h"
#include "RedisServer.h"
#include "RedisSink.h"
#include "StreamSink.h"

namespace {

// A smaller log than the decoder's (100,000 events at most): a Redis transaction holds a whole
// log in the server.
const LogFile& sinkLog() {
  static const LogFile log = bench::publishInserts(
      43, std::clamp<std::int64_t>(bench::streamBytes() / 16 / 163, 10000, 100000));
  return log;
}

std::int64_t eventsOf(const LogFile& log) {
  LogDecoder d;
  d.open(log.path);
  std::int64_t n = 0;
  while (d.next().kind != ChangeEvent::Kind::kEnd) ++n;
  return n;
}

void DumpToFile(benchmark::State& state) {
  const LogFile& log = sinkLog();
  const std::string path = bench::scratchDirectory() + "dump.jsonl";
  auto writer = EventWriter::create("json", EventFormat());
  for (auto _ : state) {
    std::FILE* out = std::fopen(path.c_str(), "w");
    StreamSink sink(*writer, out);
    sink.send(log);
    std::fclose(out);
  }
  ::unlink(path.c_str());
  state.SetItemsProcessed(state.iterations() * eventsOf(log));
}

// librdkafka's mock cluster of one broker, and the sink's options to reach it.
struct MockKafka {
  MockKafka() {
    char error[512];
    host = rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), error, sizeof error);
    cluster = rd_kafka_mock_cluster_new(host, 1);
    options.brokers = rd_kafka_mock_cluster_bootstraps(cluster);
    options.properties = {{"linger.ms", "5"}, {"log_level", "3"}};
  }
  ~MockKafka() {
    rd_kafka_mock_cluster_destroy(cluster);
    rd_kafka_destroy(host);
  }
  rd_kafka_t* host = nullptr;
  rd_kafka_mock_cluster_t* cluster = nullptr;
  KafkaSink::Options options;
};

void KafkaMockCluster(benchmark::State& state) {
  const LogFile& log = sinkLog();
  MockKafka kafka;
  const KafkaSink::Options& o = kafka.options;
  {
    KafkaSink sink(o, EventFormat());
    for (auto _ : state) sink.send(log);
  }
  state.SetItemsProcessed(state.iterations() * eventsOf(log));
}

// Starts a redis-server for a benchmark, with its files in the scratch directory.
std::unique_ptr<::RedisServer> startRedis(benchmark::State& state) {
  const std::string dir = bench::scratchDirectory() + "redis/";
  ::mkdir(dir.c_str(), 0700);
  auto server = std::make_unique<::RedisServer>(dir);
  if (!server->ready()) {
    state.SkipWithError("no redis-server");
    return nullptr;
  }
  return server;
}

RedisSink::Options redisOptions(const ::RedisServer& server) {
  RedisSink::Options o;
  RedisSink::setAddress(o, server.address());
  o.maxlen = 100000;
  return o;
}

void RedisLocalServer(benchmark::State& state) {
  const LogFile& log = sinkLog();
  const auto server = startRedis(state);
  if (!server) return;
  RedisSink sink(redisOptions(*server), EventFormat());
  for (auto _ : state) {
    sink.setPositionAfterLog("1 " + log.name + "\n");
    sink.send(log);
  }
  state.SetItemsProcessed(state.iterations() * eventsOf(log));
}

// One message of a log as a sink hands it on: its topic or stream, key and value.
struct Message {
  std::string topic, key, value;
};

// The messages KafkaSink (with Kafka's names) or RedisSink (with Redis's) sends for a log with
// the default options: no markers, every event of a table under its name, keyed by the table's
// name as a JSON string, the value its JSON line without the newline.
std::vector<Message> messagesOf(const LogFile& log, const std::string& separator) {
  std::vector<Message> out;
  JsonEventWriter writer{EventFormat()};
  LogDecoder d;
  d.open(log.path);
  writer.beginLog(EventSink::infoOf(log));
  for (;;) {
    const ChangeEvent& e = d.next();
    if (e.kind == ChangeEvent::Kind::kEnd) break;
    writer.event(e);
    std::string_view line = writer.pending();
    line.remove_suffix(1);
    const std::string table(e.relation);
    out.push_back({"fbcdc" + separator + table, "\"" + table + "\"", std::string(line)});
    writer.clear();
  }
  return out;
}

// The Kafka sink against librdkafka's own producer sending the same messages (same topics, keys,
// values, settings and idempotence, each message copied as the sink has it copied) in a bare loop
// that flushes once per log as the sink does; both into one mock cluster, in turns.
void KafkaSinkAgainstProducer(benchmark::State& state) {
  const LogFile& log = sinkLog();
  const std::vector<Message> messages = messagesOf(log, ".");
  MockKafka kafka;
  const KafkaSink::Options& o = kafka.options;
  {
    KafkaSink sink(o, EventFormat());
    // The same settings in the same order as the sink sets them.
    char error[512];
    rd_kafka_conf_t* conf = rd_kafka_conf_new();
    const std::pair<std::string, std::string> settings[] = {
        {"bootstrap.servers", o.brokers},
        {"enable.idempotence", "true"},
        {"message.timeout.ms", std::to_string(o.deliveryTimeoutMs)},
        {"linger.ms", "5"},
        {"log_level", "3"}};
    for (const auto& s : settings)
      rd_kafka_conf_set(conf, s.first.c_str(), s.second.c_str(), error, sizeof error);
    rd_kafka_t* producer = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof error);
    const auto bare = [&] {
      for (const Message& m : messages) {
        while (
            rd_kafka_producev(producer, RD_KAFKA_V_TOPIC(m.topic.c_str()),
                              RD_KAFKA_V_KEY(const_cast<char*>(m.key.data()), m.key.size()),
                              RD_KAFKA_V_VALUE(const_cast<char*>(m.value.data()), m.value.size()),
                              RD_KAFKA_V_MSGFLAGS(RD_KAFKA_MSG_F_COPY),
                              RD_KAFKA_V_END) == RD_KAFKA_RESP_ERR__QUEUE_FULL)
          rd_kafka_poll(producer, 100);
        rd_kafka_poll(producer, 0);
      }
      rd_kafka_flush(producer, 60000);
      if (rd_kafka_outq_len(producer) > 0) std::abort();
    };
    bench::InTurns turns;
    for (auto _ : state) turns.round([&] { sink.send(log); }, bare);
    rd_kafka_destroy(producer);
    const double events =
        static_cast<double>(messages.size()) * static_cast<double>(state.iterations());
    state.counters["sink_events_per_second"] = events / turns.firstSeconds();
    state.counters["producer_events_per_second"] = events / turns.secondSeconds();
  }
}

// Sends the messages as XADDs (capped as the sink caps them) pipelined through one connection,
// in MULTI/EXEC when multi is set, and reads every reply.
void pipelineXadds(redisContext* c, const std::vector<Message>& messages, bool multi) {
  if (multi) redisAppendCommand(c, "MULTI");
  for (const Message& m : messages) {
    const char* argv[] = {"XADD", m.topic.c_str(), "MAXLEN",      "~", "100000",
                          "*",    "event",         m.value.data()};
    const std::size_t lengths[] = {4, m.topic.size(), 6, 1, 6, 1, 5, m.value.size()};
    redisAppendCommandArgv(c, 8, argv, lengths);
  }
  if (multi) redisAppendCommand(c, "EXEC");
  const std::size_t replies = messages.size() + (multi ? 2 : 0);
  for (std::size_t i = 0; i < replies; ++i) {
    void* reply = nullptr;
    if (redisGetReply(c, &reply) != REDIS_OK || !reply) std::abort();
    if (static_cast<redisReply*>(reply)->type == REDIS_REPLY_ERROR) std::abort();
    freeReplyObject(reply);
  }
}

// The Redis sink against a bare hiredis loop pipelining the same XADDs into the same server, with
// MULTI/EXEC around each log and without, the three in turns.
void RedisSinkAgainstPipeline(benchmark::State& state) {
  const LogFile& log = sinkLog();
  const std::vector<Message> messages = messagesOf(log, ":");
  const auto server = startRedis(state);
  if (!server) return;
  RedisSink sink(redisOptions(*server), EventFormat());
  redisContext* c = server->context();
  const std::function<void()> work[3] = {[&] {
                                           sink.setPositionAfterLog("1 " + log.name + "\n");
                                           sink.send(log);
                                         },
                                         [&] { pipelineXadds(c, messages, true); },
                                         [&] { pipelineXadds(c, messages, false); }};
  bench::Rotation<3> turns;
  for (auto _ : state) turns.round(work);
  const double events =
      static_cast<double>(messages.size()) * static_cast<double>(state.iterations());
  state.counters["sink_events_per_second"] = events / turns.seconds(0);
  state.counters["multi_events_per_second"] = events / turns.seconds(1);
  state.counters["pipelined_events_per_second"] = events / turns.seconds(2);
}

}  // namespace

BENCHMARK(DumpToFile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(KafkaMockCluster)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(RedisLocalServer)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(KafkaSinkAgainstProducer)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(bench::pairSeconds() * 2);
BENCHMARK(RedisSinkAgainstPipeline)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(bench::pairSeconds() * 3);
