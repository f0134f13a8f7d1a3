// fbcdc prune: removes, or archives, the published logs that every named consumer has taken.
#include <time.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "Command.h"
#include "Consumer.h"
#include "LogDirectory.h"
#include "LogPruner.h"
#include "LoginOptions.h"
#include "RedisLoginOptions.h"

namespace fbcdc {

namespace {

constexpr std::int64_t kSecond = 1000000000;

// "90", "90s", "15m", "36h", "7d", "2w" in nanoseconds; throws CLI::ValidationError.
std::int64_t duration(const std::string& text) {
  std::size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
  const std::string unit = text.substr(digits);
  const std::int64_t scale = unit.empty() || unit == "s" ? 1
                             : unit == "m"               ? 60
                             : unit == "h"               ? 3600
                             : unit == "d"               ? 86400
                             : unit == "w"               ? 604800
                                                         : 0;
  // Up to a hundred years, which a count of nanoseconds holds.
  if (digits == 0 || digits > 12 || scale == 0 ||
      std::stoll(text.substr(0, digits)) > 100LL * 366 * 86400 / scale)
    throw CLI::ValidationError("--keep-for: " + text +
                               " is not a duration; give a whole number and s, m, h, d or w "
                               "(90s, 15m, 36h, 7d, 2w)");
  return std::stoll(text.substr(0, digits)) * scale * kSecond;
}

// "1 log", "2 logs".
std::string logs(std::uint64_t n) { return std::to_string(n) + (n == 1 ? " log" : " logs"); }

}  // namespace

int pruneCommand(int argc, char** argv) {
  CLI::App app(
      "Removes the published logs of LOGDIR that every named consumer has taken, or moves them "
      "into an archive directory; with --keep-for, only those published longer ago. A log goes "
      "only when every consumer's position says it is done: logs after a position, logs of the "
      "position's own clock tick that it does not name, and logs whose turn it cannot tell "
      "(changed after publication) stay; a consumer that has taken nothing keeps them all. "
      "Temporary logs are never touched. Safe while the plugin writes and the consumers run. A "
      "consumer not named here is not protected: name every consumer of the directory.",
      argv[0]);
  std::string directory;
  std::vector<std::string> consumerTexts;
  std::string keepFor;
  std::string archive;
  bool dryRun = false;
  app.add_option("LOGDIR", directory, "the plugin's output directory")->required();
  app.add_option("--consumer", consumerTexts, "a consumer of LOGDIR; repeatable")
      ->type_name("CONSUMER")
      ->required()
      ->allow_extra_args(false);
  app.add_option("--keep-for", keepFor, "keep logs published within it")->type_name("DURATION");
  app.add_option("--archive", archive, "move the logs there, not remove them")->type_name("DIR");
  app.add_flag("--dry-run", dryRun, "list what would go, change nothing");
  LoginOptions login;
  login.add(app);
  RedisLoginOptions redisLogin;
  redisLogin.add(app, "Redis login (redis: consumers)");
  app.footer(
      "CONSUMER, a consumer of LOGDIR:\n"
      "  checkpoint:FILE         follow --checkpoint FILE\n"
      "  replica:DB              apply --database DB (a path or host:path)\n"
      "  redis:HOST:PORT/PREFIX  follow --sink redis (PREFIX: its --stream-prefix;\n"
      "                          fbcdc when left out with its slash)\n"
      "DURATION: a whole number and s, m, h, d or w (90s, 15m, 36h, 7d, 2w).\n"
      "A follower not named may find its next logs gone: name every consumer.\n"
      "Exit status: 0 done, also when nothing could go; 1 a position or the\n"
      "directory could not be read, or a log could not go; 2 wrong arguments.");
  if (const int status = parse(app, argc, argv); status >= 0) return status;

  std::vector<Consumer> consumers;
  LogPruner::Options options;
  try {
    for (const std::string& s : consumerTexts) consumers.push_back(Consumer::parse(s));
    if (!keepFor.empty()) options.keepFor = duration(keepFor);
  } catch (const CLI::ValidationError& e) {
    return refuse("prune", e.what());
  }
  try {
    const Credentials credentials = login.credentials();
    RedisSink::Options redisOptions;
    redisLogin.applyTo(redisOptions);
    for (Consumer& c : consumers) c.setLogins(credentials, redisOptions);
  } catch (const std::runtime_error& e) {
    complain("prune", e.what());
    return kExitFailed;
  }
  options.archive = archive;
  options.dryRun = dryRun;
  if (!LogDirectory::isDirectory(directory)) {
    complain("prune", directory + ": not a directory");
    return kExitFailed;
  }
  if (!archive.empty() && !LogDirectory::isDirectory(archive)) {
    complain("prune", archive + ": not a directory");
    return kExitFailed;
  }
  try {
    const LogPruner pruner(directory, options);
    // Each position is read before the directory is listed; a consumer moves only forward, so a
    // position read a moment ago never counts a log as taken that the consumer has not taken.
    std::vector<LogPruner::Consumer> positions;
    for (const Consumer& c : consumers) {
      try {
        positions.push_back({c.text(), c.position()});
      } catch (const std::exception& e) {
        throw std::runtime_error(c.text() + ": " + e.what() + "; nothing was pruned");
      }
      if (positions.back().position.empty())
        complain("prune", c.text() + " has taken nothing: every log stays");
    }
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const LogPruner::Outcome o =
        pruner.prune(positions, static_cast<std::int64_t>(now.tv_sec) * kSecond + now.tv_nsec);
    const char* done = archive.empty() ? "removed" : "archived";
    if (dryRun)
      for (const LogFile& log : o.pruned) std::printf("would be %s: %s\n", done, log.name.c_str());
    std::printf("prune: %s %s%s (%llu bytes)", logs(o.pruned.size()).c_str(),
                dryRun ? "would be " : "", done, static_cast<unsigned long long>(o.bytes));
    if (!o.pruned.empty())
      std::printf(", %s to %s", o.pruned.front().name.c_str(), o.pruned.back().name.c_str());
    std::printf("; %s kept\n", logs(o.kept).c_str());
    for (std::size_t i = 0; i < consumers.size(); ++i)
      std::printf("  %s has not taken %s\n", consumers[i].text().c_str(),
                  logs(o.needed[i]).c_str());
    if (o.unknown > 0)
      std::printf("  %s whose turn a position cannot tell (changed after publication)\n",
                  logs(o.unknown).c_str());
    if (o.young > 0)
      std::printf("  %s published within --keep-for %s\n", logs(o.young).c_str(), keepFor.c_str());
  } catch (const std::invalid_argument& e) {
    return refuse("prune", e.what());
  } catch (const std::exception& e) {
    complain("prune", e.what());
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace fbcdc
