// Removes from a directory, or moves into an archive directory, the published logs that every
// given consumer has taken, so that a directory read for months does not fill its disk.
//
// A log goes only when each consumer's position says it is done (FollowPosition::check gives
// kDone): logs of the position's own tick that it has not named, logs whose turn cannot be told
// (dated by their names, near the position) and everything after the position stay. A consumer
// that has taken nothing keeps every log. Temporary logs are never looked at. Positions only move
// forward, so a position read a while ago is still a safe one: pruning may run while the plugin
// writes and the consumers read. A consumer not given here is not protected; the directory's prune
// mark (PruneMark) lets it tell that logs it had not taken are gone.
//
// Archived logs are renamed into the archive when it is on the same file system; otherwise each is
// copied under a temporary name, synced, renamed to its own name, and only once the archive's
// directory is synced is the original removed: a crash leaves a log in place, in both places, or
// in the archive, never in neither.
//
//   LogPruner pruner(directory, options);
//   LogPruner::Outcome o = pruner.prune({{"checkpoint:f.pos", position}}, now);
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "FollowPosition.h"
#include "LogFile.h"

class LogPruner {
 public:
  struct Options {
    // Logs published less than this long ago stay, in nanoseconds.
    std::int64_t keepFor = 0;
    // Where logs go; empty: they are removed.
    std::string archive;
    // Only tells what would go.
    bool dryRun = false;
  };
  struct Consumer {
    std::string name;  // for messages
    FollowPosition position;
  };
  struct Outcome {
    std::vector<LogFile> pruned;  // in publication order; with dryRun, those that would be
    std::uint64_t bytes = 0;
    std::uint64_t kept = 0;     // published logs that stay
    std::uint64_t young = 0;    // of those, taken by every consumer but published within keepFor
    std::uint64_t unknown = 0;  // of those, whose turn some consumer's position cannot tell
    // For each consumer, the logs it has not taken (unknown ones included).
    std::vector<std::uint64_t> needed;
  };

  // Throws std::invalid_argument when the archive is not a directory or is the directory itself.
  LogPruner(std::string directory, Options options);

  // Prunes the logs that all consumers have taken (at least one consumer). Throws
  // std::runtime_error, having pruned what it names in the message's place, when a log cannot be
  // removed or archived; and, pruning nothing, when the directory cannot be read whole, or when a
  // consumer's last log is neither in the directory nor pruned from it (the position of a consumer
  // of another directory would take logs this one's consumers still need). now: nanoseconds since
  // 1970-01-01 UTC.
  Outcome prune(const std::vector<Consumer>& consumers, std::int64_t now) const;

 private:
  // Moves logs into the archive; each that was there to move is marked in moved.
  void archive(const std::vector<LogFile>& logs, std::vector<bool>& moved) const;

  std::string directory_;
  Options options_;
};
