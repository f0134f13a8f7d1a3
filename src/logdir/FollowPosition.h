// How far a consumer has come in a directory's logs: the publication time of the last log it
// finished, and the names of every log it finished with that same time. A log is done when it was
// published before that time, or at that time under one of those names; so logs published within
// one tick of the file system's clock are neither skipped nor taken twice, whatever order they
// were processed in.
//
// A log whose metadata changed after publication is placed by the second in its name; far enough
// from the position that decides, close to it it is unknown. Logs placed by their names are taken
// in name order, so the position also keeps the greatest name among those it finished: a log
// placed by its name at or before it is done, and a directory of copied logs is taken once, not
// again at every look.
//
// A log that the plugin renamed once more, because its first rename came late, carries the
// transaction number of a log finished under its first name, at least half a minute and at most an
// hour earlier: it is that log, and done. (Transaction numbers of one database never repeat; a directory shared by two
// databases whose numbers meet within one tick of the clock is the only case this could confuse.)
//
// Stored as text on one line: the time, then the names of that time, then, while it still decides
// anything, "named=" and the greatest name finished by its name:
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
  // Done whatever the file's times say: named a whole window before the position. Decided on the
  // name alone, before the file is looked at.
  bool doneByName(const LogName& name) const {
    return !names_.empty() && name.time < kFar && name.time > -kFar &&
           name.time * kSecond + LogFile::kPublishWindow <= publishedAt_;
  }
  void advance(const LogFile& log);
  bool empty() const { return names_.empty(); }
  // The last log finished.
  const std::string& lastName() const { return names_.back(); }
  // The publication time of the last log finished, in nanoseconds; 0 when none.
  std::int64_t publishedAt() const { return publishedAt_; }

  std::string serialize() const;
  // Throws std::runtime_error on text that serialize() cannot have written.
  static FollowPosition parse(const std::string& text);

 private:
  static constexpr std::int64_t kSecond = 1000000000;
  static constexpr std::int64_t kFar = 9000000000;  // seconds no clock reaches
  // The plugin renames a log once more when its publishing rename returned this many seconds or
  // more after the second in the name.
  static constexpr std::int64_t kLateRenameSeconds = 30;
  static constexpr std::int64_t kLongestStallSeconds = 3600;
  bool renamedAgain(const LogFile& log) const;

  std::int64_t publishedAt_ = 0;
  std::vector<std::string> names_;
  std::string named_;  // the greatest name finished by its name; empty when none decides
};
