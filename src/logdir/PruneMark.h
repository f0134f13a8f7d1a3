// What has been pruned from a directory: the position of the logs removed (or archived), kept in
// the directory itself as "fbcdc-pruned.pos", in the checkpoint's format, replaced atomically.
//
// A consumer that was named when logs were pruned had taken them all. One that was not named may
// have been behind: its next logs are gone, and going on would skip them without a word. The mark
// lets it tell: a position that has not taken every log the mark covers has missed pruned logs,
// and a log that vanished from the queue while the mark covers it was pruned, not taken.
//
//   PruneMark mark(directory);
//   if (const std::string lost = mark.missedBy(position); !lost.empty()) stop...;
#pragma once

#include <string>
#include <vector>

#include "CheckpointFile.h"
#include "FollowPosition.h"
#include "LogFile.h"

class PruneMark {
 public:
  static constexpr const char* kFileName = "fbcdc-pruned.pos";

  // Reads the mark of directory; none there is an empty mark. Throws std::runtime_error when it
  // cannot be read or holds no position.
  explicit PruneMark(const std::string& directory);

  bool empty() const { return position_.empty(); }
  const FollowPosition& position() const { return position_; }
  const std::string& path() const { return file_.path(); }

  // Whether log is among those pruned: done by the mark's position.
  bool covers(const LogFile& log) const;
  // A pruned log that position had not taken (the last ones pruned are the ones looked at); empty
  // when it took them all, and for a position that has taken nothing, a consumer that starts now
  // and begins with the oldest log kept. A log whose turn cannot be told against position (one
  // dated by its name, near it) is not taken for missed.
  std::string missedBy(const FollowPosition& position) const;

  // Adds logs, in publication order, to what was pruned, and stores the mark durably: done before
  // they are removed, so that no log is ever gone without the mark covering it.
  void record(const std::vector<LogFile>& logs);

  // Throws std::runtime_error, worded for the user of a consumer at position in directory, when
  // the consumer has not taken logs that were pruned from it.
  static void check(const std::string& directory, const FollowPosition& position);

 private:
  CheckpointFile file_;
  FollowPosition position_;
};
