// fbcdc follow: streams the events of a directory's logs as they are published, to stdout, Kafka
// or Redis Streams.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "CheckpointFile.h"
#include "Command.h"
#include "Consumer.h"
#include "ConsumerUpkeep.h"
#include "Database.h"
#include "KafkaSink.h"
#include "LogDirectory.h"
#include "LogFollower.h"
#include "LoginOptions.h"
#include "RedisLoginOptions.h"
#include "RedisSink.h"
#include "SnapshotStream.h"
#include "StreamSink.h"

namespace fbcdc {

namespace {

struct SinkArguments {
  std::string sink = "stdout";
  // Kafka
  std::string brokers;
  std::string topicPrefix = "fbcdc";
  std::vector<std::string> properties;
  std::string propertyFile;
  std::vector<std::string> keys;
  std::string keysFrom;
  LoginOptions login;  // for --keys-from
  bool tombstones = false;
  std::string largeValues = "fail";
  std::size_t maxMessageBytes = 1000000;
  // Redis
  std::string redis = "127.0.0.1:6379";
  std::string streamPrefix = "fbcdc";
  long long maxlen = 0;
  RedisLoginOptions redisLogin;
};

// The sinks' own options, grouped by sink in the help; an option of one sink given with another is
// refused rather than ignored.
constexpr const char* kKafkaOptions = "Kafka (--sink kafka)";
constexpr const char* kRedisOptions = "Redis (--sink redis)";

void addSinkOptions(CLI::App& app, SinkArguments& a) {
  choice(app.add_option("--sink", a.sink, "where events go (default stdout)"),
         {"stdout", "kafka", "redis"});
  app.add_option("--brokers", a.brokers, "bootstrap brokers (required)")
      ->type_name("HOST:PORT,...")
      ->group(kKafkaOptions);
  app.add_option("--topic-prefix", a.topicPrefix, "topics PREFIX.TABLE (default fbcdc)")
      ->type_name("PREFIX")
      ->group(kKafkaOptions);
  app.add_option("-F", a.propertyFile, "librdkafka settings, a KEY=VALUE a line")
      ->type_name("FILE")
      ->group(kKafkaOptions);
  app.add_option("-X", a.properties, "a librdkafka setting, over -F's")
      ->type_name("KEY=VALUE")
      ->group(kKafkaOptions);
  app.add_option("--keys-from", a.keysFrom, "read the tables' primary keys from this database")
      ->type_name("DATABASE")
      ->group(kKafkaOptions);
  app.add_option("--key", a.keys, "the primary key columns of a table")
      ->type_name("TABLE=COLS")
      ->group(kKafkaOptions);
  app.add_flag("--tombstones", a.tombstones, "a null-valued message after each delete")
      ->group(kKafkaOptions);
  choice(app.add_option("--large-values", a.largeValues, "too large: fail (default), cut, omit"),
         {"fail", "truncate", "omit"})
      ->group(kKafkaOptions);
  wholeNumber(app.add_option("--max-message-bytes", a.maxMessageBytes,
                             "the brokers' message limit (default 1000000)"),
              1, INT_MAX)
      ->group(kKafkaOptions);
  app.add_option("--redis", a.redis, "HOST:PORT or unix:PATH (default 127.0.0.1:6379)")
      ->type_name("ADDRESS")
      ->group(kRedisOptions);
  a.redisLogin.add(app, kRedisOptions);
  app.add_option("--stream-prefix", a.streamPrefix, "streams PREFIX:TABLE (default fbcdc)")
      ->type_name("PREFIX")
      ->group(kRedisOptions);
  wholeNumber(app.add_option("--maxlen", a.maxlen, "cap each stream at about N entries"), 0,
              LLONG_MAX)
      ->group(kRedisOptions);
  a.login.add(app);
}

// Splits an option's value of the form "a<separator>b" (form names it for the user); throws
// CLI::ValidationError when the value is not of that form.
std::pair<std::string, std::string> split(const std::string& text, char separator,
                                          const char* option, const char* form) {
  const std::size_t at = text.find(separator);
  if (at == std::string::npos || at == 0 || at + 1 == text.size())
    throw CLI::ValidationError(std::string(option) + ": " + text + " is not " + form);
  return {text.substr(0, at), text.substr(at + 1)};
}

// The sink's arguments that can be judged before anything starts; throws CLI::ValidationError.
void checkSinkArguments(const CLI::App& app, const SinkArguments& a, const OutputOptions& output,
                        bool checkpoint) {
  const char* own = a.sink == "kafka" ? kKafkaOptions : a.sink == "redis" ? kRedisOptions : "";
  for (const CLI::Option* o : app.get_options()) {
    const std::string& group = o->get_group();
    if (o->count() > 0 && (group == kKafkaOptions || group == kRedisOptions) && group != own)
      throw CLI::ValidationError(o->get_name() + " is for --sink " +
                                 (group == kKafkaOptions ? "kafka" : "redis"));
  }
  if (a.sink != "stdout" && output.format != "json")
    throw CLI::ValidationError("--format text is for --sink stdout; kafka and redis take JSON");
  if (a.sink == "redis" && checkpoint)
    throw CLI::ValidationError("--checkpoint is not for --sink redis, which keeps the position");
  if (a.sink == "kafka" && a.brokers.empty())
    throw CLI::ValidationError("--brokers is needed with --sink kafka");
  for (const std::string& p : a.properties) split(p, '=', "-X", "KEY=VALUE");
  for (const std::string& k : a.keys) split(k, '=', "--key", "TABLE=COL,...");
  if (a.sink == "redis") {
    RedisSink::Options o;
    try {
      RedisSink::setAddress(o, a.redis);
    } catch (const std::invalid_argument& e) {
      throw CLI::ValidationError(std::string("--redis: ") + e.what());
    }
  }
  if (!a.propertyFile.empty()) {
    try {
      KafkaSink::readProperties(a.propertyFile);
    } catch (const std::invalid_argument& e) {
      throw CLI::ValidationError(std::string("-F: ") + e.what());
    }
  }
}

// The checkpoint's directory must take the file (it is written there under a temporary name and
// renamed), checked before any event goes out.
std::string checkpointProblem(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  const std::string directory = slash == std::string::npos ? "."
                                : slash == 0               ? "/"
                                                           : path.substr(0, slash);
  if (::access(directory.c_str(), W_OK | X_OK) == 0) return "";
  return "cannot keep the position in " + path + ": " + directory + ": " + std::strerror(errno);
}

// The primary keys of the source's tables, for Kafka's message keys; a table without one maps to
// no columns.
std::map<std::string, std::vector<std::string>> keysFrom(const std::string& database,
                                                         const Credentials& credentials) {
  try {
    Database source(database, credentials, false);
    return source.primaryKeys();
  } catch (const Firebird::FbException& e) {
    throw std::runtime_error("--keys-from " + database + ": " + Database::describe(e));
  }
}

// Kafka keys a table whose key is not known by its name, so that its changes stay in order in one
// partition; the user hears of each such table once, at start where the tables are known.
void announceKeys(const KafkaSink::Options& o, bool fromDatabase,
                  std::shared_ptr<std::set<std::string>> told) {
  if (!fromDatabase) {
    std::fprintf(stderr,
                 "fbcdc follow: a table without --key is keyed by its name (one partition "
                 "each); --keys-from DATABASE reads the primary keys\n");
    return;
  }
  std::string keyless;
  for (const auto& [table, columns] : o.keys) {
    if (!columns.empty()) continue;
    keyless += (keyless.empty() ? "" : ", ") + table;
    told->insert(table);
  }
  if (!keyless.empty())
    std::fprintf(stderr, "fbcdc follow: no primary key, keyed by the table's name: %s\n",
                 keyless.c_str());
}

std::unique_ptr<EventSink> makeSink(const SinkArguments& a, const OutputOptions& output,
                                    std::unique_ptr<EventWriter>& writer, bool checkpoint) {
  const EventFormat format = output.eventFormat();
  if (a.sink == "kafka") {
    KafkaSink::Options o;
    o.brokers = a.brokers;
    o.topicPrefix = a.topicPrefix;
    // The file's settings first: a -X setting of the same key comes later and wins.
    if (!a.propertyFile.empty()) o.properties = KafkaSink::readProperties(a.propertyFile);
    for (const std::string& p : a.properties) {
      auto setting = split(p, '=', "-X", "KEY=VALUE");
      // The file's value never reaches librdkafka: one it would refuse is no obstacle.
      o.properties.erase(std::remove_if(o.properties.begin(), o.properties.end(),
                                        [&](const auto& q) { return q.first == setting.first; }),
                         o.properties.end());
      o.properties.push_back(std::move(setting));
    }
    if (!a.keysFrom.empty()) o.keys = keysFrom(a.keysFrom, a.login.credentials());
    for (const std::string& k : a.keys) {
      const auto [table, columns] = split(k, '=', "--key", "TABLE=COL,...");
      std::stringstream in(columns);
      std::vector<std::string>& named = o.keys[table];
      named.clear();
      for (std::string c; std::getline(in, c, ',');) {
        const std::size_t first = c.find_first_not_of(' '), last = c.find_last_not_of(' ');
        if (first != std::string::npos) named.push_back(c.substr(first, last - first + 1));
      }
    }
    auto told = std::make_shared<std::set<std::string>>();
    o.keyedByName = [told, known = !a.keysFrom.empty()](const std::string& table) {
      if (known && told->insert(table).second)
        std::fprintf(stderr, "fbcdc follow: no primary key known for %s, keyed by its name\n",
                     table.c_str());
    };
    o.tombstones = a.tombstones;
    o.largeValues = a.largeValues == "truncate" ? KafkaSink::LargeValues::kTruncate
                    : a.largeValues == "omit"   ? KafkaSink::LargeValues::kOmit
                                                : KafkaSink::LargeValues::kFail;
    o.maxMessageBytes = a.maxMessageBytes;
    auto sink = std::make_unique<KafkaSink>(o, format);
    announceKeys(o, !a.keysFrom.empty(), told);
    return sink;
  }
  if (a.sink == "redis") {
    RedisSink::Options o;
    RedisSink::setAddress(o, a.redis);
    a.redisLogin.applyTo(o);
    o.prefix = a.streamPrefix;
    o.maxlen = a.maxlen;
    return std::make_unique<RedisSink>(o, format);
  }
  writer = EventWriter::create(output.format, format);
  // With a checkpoint, a log's events reach the disk before the position moves past them.
  return std::make_unique<StreamSink>(*writer, stdout, checkpoint);
}

}  // namespace

int followCommand(int argc, char** argv) {
  CLI::App app(
      "Streams the events of every published log of a directory in publication order, then "
      "waits for new ones: to stdout, to Kafka or to Redis Streams. After each log the position "
      "is stored durably (in the checkpoint file, or in Redis with the log's entries); a "
      "restarted follower goes on after it. SIGINT and SIGTERM stop it after the current log.",
      argv[0]);
  std::string directory;
  std::string checkpointPath;
  bool once = false;
  std::string metrics;
  bool prune = false;
  std::string snapshotDir;
  OutputOptions output;
  RangeOptions ranges;
  SinkArguments sinkArguments;
  app.add_option("DIR", directory, "the plugin's output directory")->required();
  app.add_option("--checkpoint", checkpointPath, "keeps the position between runs")
      ->type_name("FILE");
  app.add_flag("--once", once, "handle the logs present, then exit");
  app.add_option("--metrics", metrics, "serve Prometheus metrics (host 127.0.0.1 if none)")
      ->type_name("HOST:PORT");
  app.add_flag("--prune", prune, "remove the logs taken (if the sole consumer)");
  app.add_option("--snapshot", snapshotDir, "this snapshot's rows first, then what it lacks")
      ->type_name("SNAPDIR");
  addOutputOptions(app, output);
  addRangeOptions(app, ranges);
  addSinkOptions(app, sinkArguments);
  if (const int status = parse(app, argc, argv); status >= 0) return status;

  LogRange range;
  std::unique_ptr<EventWriter> writer;
  std::unique_ptr<EventSink> sink;
  try {
    range = ranges.range();
    checkSinkArguments(app, sinkArguments, output, !checkpointPath.empty());
    if (prune && checkpointPath.empty() && sinkArguments.sink != "redis")
      throw CLI::ValidationError("--prune needs a kept position: --checkpoint or --sink redis");
    if (!metrics.empty()) MetricsServer::bindAddress(metrics);
  } catch (const CLI::ValidationError& e) {
    return refuse("follow", e.what());
  } catch (const std::invalid_argument& e) {
    return refuse("follow", e.what());
  }
  if (!LogDirectory::isDirectory(directory)) {
    complain("follow", directory + ": not a directory");
    return kExitFailed;
  }
  if (!checkpointPath.empty()) {
    if (const std::string problem = checkpointProblem(checkpointPath); !problem.empty()) {
      complain("follow", problem);
      return kExitFailed;
    }
  }

  try {
    // Before the sink starts its threads, so that they inherit the blocked signals.
    LogFollower::stopOnSignals();
    try {
      sink = makeSink(sinkArguments, output, writer, !checkpointPath.empty());
    } catch (const std::invalid_argument& e) {  // a -X setting the Kafka client refused
      return refuse("follow", e.what());
    }
    CheckpointFile checkpoint(checkpointPath);
    FollowPosition position;
    // With a snapshot, the stored position also counts the snapshot files taken.
    std::unique_ptr<SnapshotStream> snapshot;
    SnapshotPosition snapshotPosition;
    if (!snapshotDir.empty()) snapshot = std::make_unique<SnapshotStream>(snapshotDir);
    // A server that refuses to give the position (a login it wants, a key it does not let this
    // user read) says so in its own words: that is no damage.
    const std::string kept = sink->keepsPosition() ? sink->loadPosition() : std::string();
    try {
      const std::string stored = sink->keepsPosition()     ? kept
                                 : !checkpointPath.empty() ? checkpoint.load()
                                                           : std::string();
      if (snapshot) {
        snapshotPosition = SnapshotPosition::parse(stored);
        position = snapshotPosition.logs;
      } else {
        position = FollowPosition::parse(stored);
      }
    } catch (const std::runtime_error& e) {
      throw std::runtime_error(std::string("the stored position is damaged: ") + e.what());
    }
    // Named as status and prune name it.
    const std::string consumer =
        sinkArguments.sink == "redis"
            ? Consumer::redis(sinkArguments.redis, sinkArguments.streamPrefix).text()
        : !checkpointPath.empty() ? Consumer::checkpoint(checkpointPath).text()
                                  : "follow:" + directory;
    ConsumerUpkeep upkeep("follow", {directory, consumer, metrics, prune});
    upkeep.started(position);
    auto serialized = [&](const FollowPosition& p) {
      if (!snapshot) return p.serialize();
      SnapshotPosition s = snapshotPosition;
      s.logs = p;
      return s.serialize();
    };
    if (snapshot)
      snapshot->sendRows(
          *sink, snapshotPosition,
          [&](const SnapshotPosition& after) {
            if (sink->keepsPosition()) sink->setPositionAfterLog(after.serialize());
          },
          [&](const SnapshotPosition& after) {
            if (!checkpointPath.empty()) checkpoint.store(after.serialize());
          });
    LogFollower follower(directory, range);
    follower.run(
        position,
        [&](const LogFile& log) {
          if (sink->keepsPosition()) {
            FollowPosition after = position;
            after.advance(log);
            sink->setPositionAfterLog(serialized(after));
          }
          upkeep.take(log, follower.waiting().size(), [&] {
            if (snapshot)
              snapshot->sendLog(upkeep.sink(*sink), log);
            else
              upkeep.sink(*sink).send(log);
          });
        },
        [&](const FollowPosition& p) {
          if (!checkpointPath.empty()) checkpoint.store(serialized(p));
          upkeep.taken(p, follower.waiting());
        },
        once);
  } catch (const std::exception& e) {
    complain("follow", e.what());
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace fbcdc
