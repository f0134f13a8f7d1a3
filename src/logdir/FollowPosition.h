// How far a consumer has come in a directory's logs: the publication time of the last log it
// finished, and the names of every log it finished with that same time. A log is done when it was
// published before that time, or at that time under one of those names; so logs published within
// one tick of the file system's clock are neither skipped nor taken twice, whatever order they
// were processed in. A log whose metadata changed after publication is placed by the second in its
// name; far enough from the position that decides, close to it it is unknown.
//
// Stored as text: the time, a space and the names separated by spaces, on one line:
//   1700000003123456789 000000006553f103_00000000000004d2.fbl
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "LogFile.h"

class FollowPosition {
 public:
  // Nothing done yet.
  FollowPosition() = default;

  enum class Verdict { kDone, kNotDone, kUnknown };
  // Whether log was finished. kUnknown only for a log whose publication time comes from its name
  // (LogFile::fromName) and whose true time, somewhere in the window after that second, may lie on
  // either side of the position's.
  Verdict check(const LogFile& log) const;
  // Done for certain; an unknown log counts as not done (taken again: at least once).
  bool isDone(const LogFile& log) const { return check(log) == Verdict::kDone; }
  void advance(const LogFile& log);
  bool empty() const { return names_.empty(); }
  // The last log finished.
  const std::string& lastName() const { return names_.back(); }

  std::string serialize() const;
  // Throws std::runtime_error on text that serialize() cannot have written.
  static FollowPosition parse(const std::string& text);

 private:
  std::int64_t publishedAt_ = 0;
  std::vector<std::string> names_;
};
