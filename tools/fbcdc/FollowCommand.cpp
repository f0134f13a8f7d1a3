// fbcdc follow: streams the events of a directory's logs as they are published, to stdout, Kafka
// or Redis Streams.
#include <cstdio>
#include <memory>
#include <sstream>

#include "CheckpointFile.h"
#include "Command.h"
#include "KafkaSink.h"
#include "LogDirectory.h"
#include "LogFollower.h"
#include "RedisSink.h"
#include "StreamSink.h"

namespace fbcdc {

namespace {

struct SinkArguments {
  std::string sink = "stdout";
  // Kafka
  std::string brokers;
  std::string topicPrefix = "fbcdc";
  std::vector<std::string> properties;
  std::vector<std::string> keys;
  bool tombstones = false;
  std::string largeValues = "fail";
  std::size_t maxMessageBytes = 1000000;
  // Redis
  std::string redis = "127.0.0.1:6379";
  std::string streamPrefix = "fbcdc";
  long long maxlen = 0;
};

void addSinkOptions(CLI::App& app, SinkArguments& a) {
  app.add_option("--sink", a.sink, "stdout (default), kafka or redis")
      ->check(CLI::IsMember({"stdout", "kafka", "redis"}));
  app.add_option("--brokers", a.brokers, "kafka: the bootstrap brokers, host:port,...");
  app.add_option("--topic-prefix", a.topicPrefix,
                 "kafka: topics <prefix>.<TABLE> and <prefix>.transaction (default fbcdc)");
  app.add_option("-X", a.properties, "kafka: a librdkafka setting key=value, passed through");
  app.add_option("--key", a.keys, "kafka: TABLE=COL,... the primary key of a table");
  app.add_flag("--tombstones", a.tombstones, "kafka: a null-valued message after each delete");
  app.add_option("--large-values", a.largeValues,
                 "kafka: a message over the limit fails (default), or its values are cut "
                 "(truncate) or left out (omit)")
      ->check(CLI::IsMember({"fail", "truncate", "omit"}));
  app.add_option("--max-message-bytes", a.maxMessageBytes,
                 "kafka: the broker's message size limit (default 1000000)");
  app.add_option("--redis", a.redis, "redis: host:port (default 127.0.0.1:6379)");
  app.add_option("--stream-prefix", a.streamPrefix,
                 "redis: streams <prefix>:<TABLE> and <prefix>:transaction, and the position "
                 "in <prefix>:checkpoint (default fbcdc)");
  app.add_option("--maxlen", a.maxlen, "redis: cap every stream at about this many entries");
}

std::pair<std::string, std::string> split(const std::string& text, char separator,
                                          const char* option) {
  const std::size_t at = text.find(separator);
  if (at == std::string::npos || at == 0)
    throw CLI::ValidationError(option, "\"" + text + "\" is not of the form a" + separator + "b");
  return {text.substr(0, at), text.substr(at + 1)};
}

std::unique_ptr<EventSink> makeSink(const SinkArguments& a, const OutputOptions& output,
                                    std::unique_ptr<EventWriter>& writer) {
  const EventFormat format = output.eventFormat();
  if (a.sink == "kafka") {
    if (a.brokers.empty()) throw CLI::ValidationError("--brokers", "is needed for --sink kafka");
    KafkaSink::Options o;
    o.brokers = a.brokers;
    o.topicPrefix = a.topicPrefix;
    for (const std::string& p : a.properties) o.properties.push_back(split(p, '=', "-X"));
    for (const std::string& k : a.keys) {
      const auto [table, columns] = split(k, '=', "--key");
      std::stringstream in(columns);
      for (std::string c; std::getline(in, c, ',');) o.keys[table].push_back(c);
    }
    o.tombstones = a.tombstones;
    o.largeValues = a.largeValues == "truncate" ? KafkaSink::LargeValues::kTruncate
                    : a.largeValues == "omit"   ? KafkaSink::LargeValues::kOmit
                                                : KafkaSink::LargeValues::kFail;
    o.maxMessageBytes = a.maxMessageBytes;
    return std::make_unique<KafkaSink>(o, format);
  }
  if (a.sink == "redis") {
    RedisSink::Options o;
    const auto [host, port] = split(a.redis, ':', "--redis");
    o.host = host;
    o.port = std::stoi(port);
    o.prefix = a.streamPrefix;
    o.maxlen = a.maxlen;
    return std::make_unique<RedisSink>(o, format);
  }
  writer = EventWriter::create(output.format, format);
  return std::make_unique<StreamSink>(*writer, stdout);
}

}  // namespace

int followCommand(int argc, char** argv) {
  CLI::App app(
      "Streams the events of every published log of a directory in publication order, "
      "then waits for new ones: to stdout, to Kafka or to Redis Streams. After each log "
      "the position is stored (in the checkpoint file, or in Redis with the log's "
      "entries), durably; a restarted follower goes on after it. SIGINT and SIGTERM stop "
      "it after the current log.",
      argv[0]);
  std::string directory;
  std::string checkpointPath;
  bool once = false;
  OutputOptions output;
  RangeOptions ranges;
  SinkArguments sinkArguments;
  app.add_option("DIR", directory, "the plugin's output directory")->required();
  app.add_option("--checkpoint", checkpointPath, "file that keeps the position between runs");
  app.add_flag("--once", once, "handle the logs present, then exit");
  addOutputOptions(app, output);
  addRangeOptions(app, ranges);
  addSinkOptions(app, sinkArguments);
  if (const int status = parse(app, argc, argv); status >= 0) return status;

  LogRange range;
  std::unique_ptr<EventWriter> writer;
  std::unique_ptr<EventSink> sink;
  try {
    range = ranges.range();
    if (sinkArguments.sink != "stdout" && output.format != "json")
      throw CLI::ValidationError("--format", "kafka and redis take JSON events only");
    if (sinkArguments.sink == "redis" && !checkpointPath.empty())
      throw CLI::ValidationError("--checkpoint", "redis keeps the position itself");
  } catch (const CLI::ValidationError& e) {
    complain("follow", e.what());
    return kExitUsage;
  }
  if (!LogDirectory::isDirectory(directory)) {
    complain("follow", directory + ": not a directory");
    return kExitFailed;
  }

  try {
    // Before the sink starts its threads, so that they inherit the blocked signals.
    LogFollower::stopOnSignals();
    sink = makeSink(sinkArguments, output, writer);
    CheckpointFile checkpoint(checkpointPath);
    FollowPosition position;
    try {
      if (sink->keepsPosition())
        position = FollowPosition::parse(sink->loadPosition());
      else if (!checkpointPath.empty())
        position = FollowPosition::parse(checkpoint.load());
    } catch (const std::runtime_error& e) {
      throw std::runtime_error(std::string("the stored position is damaged: ") + e.what());
    }
    LogFollower follower(directory, range);
    follower.run(
        position,
        [&](const LogFile& log) {
          if (sink->keepsPosition()) {
            FollowPosition after = position;
            after.advance(log);
            sink->setPositionAfterLog(after.serialize());
          }
          sink->send(log);
        },
        [&](const FollowPosition& p) {
          if (!checkpointPath.empty()) checkpoint.store(p.serialize());
        },
        once);
  } catch (const CLI::ValidationError& e) {
    complain("follow", e.what());
    return kExitUsage;
  } catch (const std::invalid_argument& e) {  // a -X setting the Kafka client refused
    complain("follow", e.what());
    return kExitUsage;
  } catch (const std::exception& e) {
    complain("follow", e.what());
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace fbcdc
