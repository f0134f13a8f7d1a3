// fbcdc status: how far behind each consumer of a log directory is, and what the directory holds.
#include <time.h>

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include "Command.h"
#include "Consumer.h"
#include "ConsumerMetrics.h"
#include "DirectoryStatus.h"
#include "JsonOutput.h"
#include "LogDirectory.h"
#include "LoginOptions.h"
#include "PruneMark.h"
#include "RedisLoginOptions.h"

namespace fbcdc {

namespace {

constexpr std::int64_t kSecond = 1000000000;

std::int64_t nowNanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::int64_t>(now.tv_sec) * kSecond + now.tv_nsec;
}

// "2023-11-14T22:13:20Z", from nanoseconds.
std::string utc(std::int64_t nanoseconds) {
  const time_t seconds = static_cast<time_t>(nanoseconds / kSecond);
  tm parts{};
  char text[32];
  if (!::gmtime_r(&seconds, &parts) ||
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0)
    return "@" + std::to_string(seconds);
  return text;
}

// "123 bytes", or "1234567 bytes (1.2 MiB)".
std::string bytesText(std::uint64_t bytes) {
  std::string text = std::to_string(bytes) + " bytes";
  if (bytes < 1024) return text;
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB"};
  double value = static_cast<double>(bytes) / 1024;
  int unit = 0;
  while (value >= 1024 && unit < 4) value /= 1024, ++unit;
  char scaled[32];
  std::snprintf(scaled, sizeof scaled, " (%.1f %s)", value, kUnits[unit]);
  return text + scaled;
}

// "1 log", "2 logs".
std::string logs(std::uint64_t n) { return std::to_string(n) + (n == 1 ? " log" : " logs"); }

// Seconds with milliseconds, as a lag is shown.
double seconds(std::int64_t nanoseconds) {
  return static_cast<double>(nanoseconds / 1000000) / 1000.0;
}

struct Report {
  explicit Report(Consumer c) : consumer(std::move(c)) {}
  Consumer consumer;
  std::string error;  // empty when the position was read
  FollowPosition position;
  DirectoryStatus::Backlog backlog;
  bool lagging = false;
  std::string missed;  // a pruned log it had not taken; empty when none
};

void printText(const std::string& directory, const DirectoryStatus& s, const PruneMark& mark,
               const std::vector<Report>& reports, long long maxLag) {
  std::printf("directory %s\n", directory.c_str());
  std::printf("  published    %s, %s", logs(s.published().size()).c_str(),
              bytesText(s.publishedBytes()).c_str());
  if (!s.published().empty())
    std::printf("; oldest %s, %s", s.published().front().file.name.c_str(),
                utc(s.published().front().file.publishedAt).c_str());
  std::printf("\n  temporary    %s, %zu begun more than a minute ago\n",
              logs(s.temporaryLogs()).c_str(), s.staleTemporaries().size());
  for (const DirectoryStatus::Temporary& t : s.staleTemporaries())
    std::printf("               %s: begun %lld s ago, last written %lld s ago, %s\n",
                t.name.c_str(), static_cast<long long>(t.ageSeconds),
                static_cast<long long>(t.idleSeconds), bytesText(t.bytes).c_str());
  std::printf("  free space   %s of %s\n", bytesText(s.freeBytes()).c_str(),
              bytesText(s.totalBytes()).c_str());
  if (!mark.empty()) std::printf("  pruned       through %s\n", mark.position().lastName().c_str());
  for (const Report& r : reports) {
    std::printf("%s\n", r.consumer.text().c_str());
    if (!r.error.empty()) {
      std::printf("  error        %s\n", r.error.c_str());
      continue;
    }
    std::string position = r.position.serialize();
    if (!position.empty()) position.pop_back();
    std::printf("  position     %s\n",
                position.empty() ? "none: it has taken nothing" : position.c_str());
    std::printf("  not taken    %s, %s", logs(r.backlog.logs).c_str(),
                bytesText(r.backlog.bytes).c_str());
    if (!r.backlog.oldest.empty()) std::printf("; oldest %s", r.backlog.oldest.c_str());
    std::printf("\n  lag          %.3f s", seconds(r.backlog.lag));
    if (r.lagging) std::printf(", more than --max-lag %lld", maxLag);
    std::printf("\n");
    if (!r.missed.empty())
      std::printf("  missed       pruned logs it had not taken (%s among them)\n",
                  r.missed.c_str());
  }
}

void printJson(const std::string& directory, const DirectoryStatus& s, const PruneMark& mark,
               const std::vector<Report>& reports, long long maxLag) {
  JsonOutput out;
  rapidjson::Writer<JsonOutput> w(out);
  const auto text = [&w](const std::string& value) {
    w.String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  };
  const auto nameOrNull = [&](const std::string& name) {
    if (name.empty())
      w.Null();
    else
      text(name);
  };
  w.StartObject();
  w.Key("directory");
  text(directory);
  w.Key("time");
  text(utc(s.now()));
  w.Key("published");
  w.StartObject();
  w.Key("logs");
  w.Uint64(s.published().size());
  w.Key("bytes");
  w.Uint64(s.publishedBytes());
  w.Key("oldest");
  nameOrNull(s.published().empty() ? "" : s.published().front().file.name);
  w.EndObject();
  w.Key("temporary");
  w.StartObject();
  w.Key("logs");
  w.Uint64(s.temporaryLogs());
  w.Key("stale");
  w.StartArray();
  for (const DirectoryStatus::Temporary& t : s.staleTemporaries()) {
    w.StartObject();
    w.Key("name");
    text(t.name);
    w.Key("bytes");
    w.Uint64(t.bytes);
    w.Key("age_seconds");
    w.Int64(t.ageSeconds);
    w.Key("idle_seconds");
    w.Int64(t.idleSeconds);
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  w.Key("free_bytes");
  w.Uint64(s.freeBytes());
  w.Key("total_bytes");
  w.Uint64(s.totalBytes());
  w.Key("pruned_through");
  nameOrNull(mark.empty() ? "" : mark.position().lastName());
  if (maxLag >= 0) {
    w.Key("max_lag_seconds");
    w.Int64(maxLag);
  }
  w.Key("consumers");
  w.StartArray();
  for (const Report& r : reports) {
    w.StartObject();
    w.Key("consumer");
    text(r.consumer.text());
    if (!r.error.empty()) {
      w.Key("error");
      text(r.error);
      w.EndObject();
      continue;
    }
    std::string position = r.position.serialize();
    if (!position.empty()) position.pop_back();
    w.Key("position");
    nameOrNull(position);
    w.Key("not_taken");
    w.StartObject();
    w.Key("logs");
    w.Uint64(r.backlog.logs);
    w.Key("bytes");
    w.Uint64(r.backlog.bytes);
    w.Key("oldest");
    nameOrNull(r.backlog.oldest);
    w.EndObject();
    w.Key("lag_seconds");
    w.Double(seconds(r.backlog.lag));
    w.Key("lagging");
    w.Bool(r.lagging);
    w.Key("missed_pruned");
    nameOrNull(r.missed);
    w.EndObject();
  }
  w.EndArray();
  w.EndObject();
  out.Put('\n');
  std::fwrite(out.view().data(), 1, out.size(), stdout);
}

// The backlog families a running consumer serves with --metrics, for the node exporter's textfile
// collector; a consumer whose position could not be read has no samples.
void printPrometheus(const std::vector<Report>& reports) {
  std::vector<ConsumerMetrics::Backlog> all;
  for (const Report& r : reports) {
    if (!r.error.empty()) continue;
    all.push_back({r.consumer.text(), r.backlog.lag, r.backlog.logs, r.position.publishedAt()});
  }
  const std::string text = ConsumerMetrics::text(ConsumerMetrics::backlogFamilies(all));
  std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace

int statusCommand(int argc, char** argv) {
  CLI::App app(
      "Tells how far behind each consumer of a log directory is: its position, the logs and "
      "bytes published that it has not taken, and its lag, the time since the oldest of those "
      "was published (0 when it has taken every log). For the directory: its published logs, "
      "temporary logs begun more than a minute ago (a long transaction, or a writer that died) "
      "and the free space of its file system. Exit status 1 when a consumer's position cannot be "
      "read, when logs it had not taken were pruned, or, with --max-lag, when it lags more: a "
      "monitoring check.",
      argv[0]);
  std::string directory;
  std::vector<std::string> checkpoints, replicas, redis, prefixes, consumerTexts;
  std::string format = "text";
  long long maxLag = -1;
  app.add_option("LOGDIR", directory, "the plugin's output directory")->required();
  app.add_option("--checkpoint", checkpoints, "a follower's checkpoint file; repeatable")
      ->type_name("FILE");
  app.add_option("--replica", replicas, "a replica that apply fills; repeatable")->type_name("DB");
  app.add_option("--redis", redis, "a follower into Redis at ADDRESS; repeatable")
      ->type_name("ADDRESS");
  app.add_option("--stream-prefix", prefixes, "its prefix (default fbcdc), one per --redis")
      ->type_name("PREFIX");
  app.add_option("--consumer", consumerTexts, "a consumer as prune names it; repeatable")
      ->type_name("CONSUMER");
  choice(app.add_option("--format", format, "text (default), json or prometheus"),
         {"text", "json", "prometheus"});
  wholeNumber(app.add_option("--max-lag", maxLag, "exit status 1 when a consumer lags more"), 0,
              LLONG_MAX / 1000000000)
      ->type_name("SECONDS");
  LoginOptions login;
  login.add(app);
  RedisLoginOptions redisLogin;
  redisLogin.add(app, "Redis login (--redis, redis: consumers)");
  app.footer(
      "CONSUMER: checkpoint:FILE, replica:DB or redis:HOST:PORT/PREFIX\n"
      "(see fbcdc prune --help).");
  // Each occurrence takes one value, so that LOGDIR may come after them.
  for (const char* name : {"--checkpoint", "--replica", "--redis", "--stream-prefix", "--consumer"})
    app.get_option(name)->allow_extra_args(false);
  if (const int status = parse(app, argc, argv); status >= 0) return status;

  std::vector<Report> reports;
  try {
    for (const std::string& c : checkpoints) reports.emplace_back(Consumer::checkpoint(c));
    for (const std::string& r : replicas) reports.emplace_back(Consumer::replica(r));
    if (!prefixes.empty() && prefixes.size() != redis.size())
      throw CLI::ValidationError("give one --stream-prefix for each --redis, or none");
    for (std::size_t i = 0; i < redis.size(); ++i)
      reports.emplace_back(Consumer::redis(redis[i], prefixes.empty() ? "fbcdc" : prefixes[i]));
    for (const std::string& s : consumerTexts) reports.emplace_back(Consumer::parse(s));
  } catch (const CLI::ValidationError& e) {
    return refuse("status", e.what());
  }
  try {
    const Credentials credentials = login.credentials();
    RedisSink::Options redisOptions;
    redisLogin.applyTo(redisOptions);
    for (Report& r : reports) r.consumer.setLogins(credentials, redisOptions);
  } catch (const std::runtime_error& e) {
    complain("status", e.what());
    return kExitFailed;
  }
  if (!LogDirectory::isDirectory(directory)) {
    complain("status", directory + ": not a directory");
    return kExitFailed;
  }
  // Positions first: one read a moment before the directory is at worst a little behind, never
  // ahead of a log that is not yet listed.
  for (Report& r : reports) {
    try {
      r.position = r.consumer.position();
    } catch (const std::exception& e) {
      r.error = e.what();
    }
  }
  int status = kExitOk;
  try {
    const DirectoryStatus s(directory, nowNanoseconds());
    const PruneMark mark(directory);
    for (Report& r : reports) {
      if (!r.error.empty()) {
        complain("status", r.consumer.text() + ": " + r.error);
        status = kExitFailed;
        continue;
      }
      r.backlog = s.behind(r.position);
      r.lagging = maxLag >= 0 && r.backlog.lag > maxLag * kSecond;
      if (r.lagging) {
        char lag[64];
        std::snprintf(lag, sizeof lag, "%.3f s", seconds(r.backlog.lag));
        complain("status", r.consumer.text() + " lags " + lag + ", more than --max-lag " +
                               std::to_string(maxLag));
        status = kExitFailed;
      }
      // A consumer left out of a prune may have lost logs it had not taken yet.
      r.missed = mark.missedBy(r.position);
      if (!r.missed.empty()) {
        complain("status", r.consumer.text() + " had not taken logs that were pruned (" + r.missed +
                               " among them)");
        status = kExitFailed;
      }
    }
    if (format == "json")
      printJson(directory, s, mark, reports, maxLag);
    else if (format == "prometheus")
      printPrometheus(reports);
    else
      printText(directory, s, mark, reports, maxLag);
  } catch (const std::exception& e) {
    complain("status", e.what());
    return kExitFailed;
  }
  return status;
}

}  // namespace fbcdc
