// The sinks of fbcdc follow beside dump to a file, on the same log of 10-field inserts: Kafka
// through librdkafka to its mock cluster in this process, and Redis Streams to a redis-server
// started on a free loopback port for the run.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>

#include <cstdio>
#include <stdexcept>

#include "BenchSupport.h"
#include "KafkaSink.h"
#include "LogDecoder.h"
#include "RedisSink.h"
#include "StreamSink.h"

extern char** environ;

namespace {

// A smaller log than the decoder's: a Redis transaction holds a whole log in the server.
const LogFile& sinkLog() {
  static const LogFile log =
      bench::publishInserts(43, std::max<std::int64_t>(10000, bench::streamBytes() / 16 / 163));
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

void KafkaMockCluster(benchmark::State& state) {
  const LogFile& log = sinkLog();
  char error[512];
  rd_kafka_t* host = rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), error, sizeof error);
  rd_kafka_mock_cluster_t* cluster = rd_kafka_mock_cluster_new(host, 1);
  KafkaSink::Options o;
  o.brokers = rd_kafka_mock_cluster_bootstraps(cluster);
  o.properties = {{"linger.ms", "5"}, {"log_level", "3"}};
  {
    KafkaSink sink(o, EventFormat());
    for (auto _ : state) sink.send(log);
  }
  rd_kafka_mock_cluster_destroy(cluster);
  rd_kafka_destroy(host);
  state.SetItemsProcessed(state.iterations() * eventsOf(log));
}

void RedisServer(benchmark::State& state) {
  const LogFile& log = sinkLog();
  const int probe = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  const std::string port = std::to_string(ntohs(address.sin_port));
  ::close(probe);
  std::string args[] = {"redis-server",
                        "--port",
                        port,
                        "--bind",
                        "127.0.0.1",
                        "--save",
                        "",
                        "--appendonly",
                        "no",
                        "--dir",
                        bench::scratchDirectory()};
  char* argv[12];
  for (int i = 0; i < 11; ++i) argv[i] = &args[i][0];
  argv[11] = nullptr;
  pid_t server = -1;
  posix_spawn_file_actions_t quiet;
  posix_spawn_file_actions_init(&quiet);
  posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
  const int spawned = posix_spawnp(&server, "redis-server", &quiet, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&quiet);
  if (spawned != 0) {
    state.SkipWithError("no redis-server");
    return;
  }
  RedisSink::Options o;
  o.port = std::stoi(port);
  o.maxlen = 100000;
  std::unique_ptr<RedisSink> sink;
  for (int i = 0; i < 100 && !sink; ++i) {
    try {
      sink = std::make_unique<RedisSink>(o, EventFormat());
    } catch (const std::runtime_error&) {
      ::usleep(50000);
    }
  }
  for (auto _ : state) {
    sink->setPositionAfterLog("1 " + log.name + "\n");
    sink->send(log);
  }
  sink.reset();
  ::kill(server, SIGTERM);
  ::waitpid(server, nullptr, 0);
  state.SetItemsProcessed(state.iterations() * eventsOf(log));
}

}  // namespace

BENCHMARK(DumpToFile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(KafkaMockCluster)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(RedisServer)->Unit(benchmark::kMillisecond)->UseRealTime();
