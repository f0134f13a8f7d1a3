// What a directory of change logs holds at one moment, and how far a consumer is behind in it:
// the answers to "how much is waiting, and since when" that status reports and monitors check.
//
//   DirectoryStatus status(directory, now);
//   DirectoryStatus::Backlog b = status.behind(FollowPosition::parse(checkpoint.load()));
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "FollowPosition.h"
#include "LogFile.h"

class DirectoryStatus {
 public:
  struct Log {
    LogFile file;
    std::uint64_t bytes = 0;
  };
  struct Temporary {
    std::string name;
    std::uint64_t bytes = 0;
    std::int64_t ageSeconds = 0;   // since the second in its name, when its transaction began
    std::int64_t idleSeconds = 0;  // since it was last written
  };
  // The published logs a consumer has not taken, by the position's rules (a log whose turn cannot
  // be told counts as not taken, as a follower would take it).
  struct Backlog {
    std::uint64_t logs = 0;
    std::uint64_t bytes = 0;
    std::string oldest;  // the first of them in publication order; empty when none
    // now minus the publication time of the oldest, in nanoseconds; 0 when none (and never
    // below 0, should a clock have gone back).
    std::int64_t lag = 0;
  };

  // Reads directory: its published logs with their sizes, its temporary logs, the free space of
  // its file system. now is the time to measure ages against, in nanoseconds since 1970-01-01
  // UTC. Throws std::runtime_error when the directory or a log in it cannot be read.
  DirectoryStatus(const std::string& directory, std::int64_t now);

  Backlog behind(const FollowPosition& position) const;

  // In publication order.
  const std::vector<Log>& published() const { return published_; }
  std::uint64_t publishedBytes() const { return publishedBytes_; }
  // Temporary logs whose transaction began more than kStaleSeconds ago: one open that long, or a
  // writer that died and left its file.
  const std::vector<Temporary>& staleTemporaries() const { return stale_; }
  std::uint64_t temporaryLogs() const { return temporaries_; }
  // The space of the directory's file system: what an unprivileged writer such as the server may
  // still use, and the whole.
  std::uint64_t freeBytes() const { return freeBytes_; }
  std::uint64_t totalBytes() const { return totalBytes_; }
  std::int64_t now() const { return now_; }

  static constexpr std::int64_t kStaleSeconds = 60;

 private:
  std::int64_t now_;
  std::vector<Log> published_;
  std::uint64_t publishedBytes_ = 0;
  std::vector<Temporary> stale_;
  std::uint64_t temporaries_ = 0;
  std::uint64_t freeBytes_ = 0;
  std::uint64_t totalBytes_ = 0;
};
