// Follows a directory into which change logs are published: hands every published log that a
// position has not yet seen to a handler, in publication order, then waits for new ones.
//
// A log is published by a rename into the directory, which inotify reports as it happens; the
// follower takes new logs in the order of those reports (the exact order of publication, finer
// than the file system's clock), and on start, or when inotify lost track (queue overflow), in the
// order of LogFile. ".tmp" files are ignored. A periodic rescan catches anything a report missed.
//
//   LogFollower follower(directory, range);
//   follower.run(position, [&](const LogFile& log) { sink.send(log); },
//                [&](const FollowPosition& p) { checkpoint.store(p.serialize()); });
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "FollowPosition.h"
#include "LogFile.h"
#include "LogRange.h"

class LogFollower {
 public:
  using Handler = std::function<void(const LogFile& log)>;
  using Committed = std::function<void(const FollowPosition& position)>;

  LogFollower(std::string directory, LogRange range);
  ~LogFollower();
  LogFollower(const LogFollower&) = delete;
  LogFollower& operator=(const LogFollower&) = delete;

  // Hands each log to handle and then advances position and calls committed with it. With once,
  // returns when the logs present have been handled; otherwise waits for more, and returns when a
  // stop was requested (after the current log) or the range has ended. Exceptions of the handler
  // and of committed pass through, leaving position at the last log completed.
  void run(FollowPosition& position, const Handler& handle, const Committed& committed, bool once);

  // Makes every running follower stop after its current log; safe in a signal handler.
  static void requestStop();
  // From now on SIGINT and SIGTERM request a stop, and a second one ends the process. They are
  // blocked and taken by a thread of their own with sigwait, never by a handler: after a handler
  // has run, the embedded Firebird engine spins forever in its detach. Call it before other threads
  // start (a database attachment, a Kafka producer) so that they inherit the block.
  static void stopOnSignals();
  static bool stopRequested();

  // The logs found and not yet taken, the next first; during a handler's call, those after its log.
  const std::deque<LogFile>& waiting() const { return queue_; }

  // Puts a queue in publication order without moving logs of one time against each other, so
  // that the order of reports stands where times are equal.
  static void order(std::deque<LogFile>& queue);

  // Seconds between rescans while waiting; a rescan finds logs whose report was lost.
  static constexpr int kRescanSeconds = 5;

 private:
  // Adds logs not done, in range and not queued yet; sorted among themselves.
  void enqueue(std::vector<LogFile> logs, const FollowPosition& position);
  void rescan(const FollowPosition& position);
  // Waits for reports or a stop; queues what was reported.
  void wait(const FollowPosition& position);
  // Queues what inotify has reported so far, without waiting; true when reports were lost.
  bool readReports(const FollowPosition& position);

  std::string directory_;
  LogRange range_;
  int inotify_ = -1;
  // Logs to take, in order, and their names: a backlog of a million logs is queued and looked up
  // in constant time per log.
  std::deque<LogFile> queue_;
  std::unordered_set<std::string> queued_;
};
