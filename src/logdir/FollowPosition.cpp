#include "FollowPosition.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

bool FollowPosition::renamedAgain(const LogFile& log) const {
  // A name is "<second>_<transaction>.fbl", both 16 hexadecimal digits: the transaction's digits
  // are compared in place. The plugin renames again only a rename that came half a minute late.
  if (log.name.size() != 37) return false;
  for (const std::string& name : names_) {
    LogName done;
    // The second rename follows the first at once, however long the first stalled: an hour is
    // allowed for that. A number met again later than that is another transaction (a restored
    // database counts its transactions anew).
    if (name.compare(17, 16, log.name, 17, 16) == 0 && LogName::parse(name, done) &&
        log.parsed.time - done.time >= kLateRenameSeconds &&
        log.parsed.time - done.time <= kLongestStallSeconds)
      return true;
  }
  return false;
}

FollowPosition::Verdict FollowPosition::check(const LogFile& log) const {
  if (names_.empty()) return Verdict::kNotDone;
  if (std::find(names_.begin(), names_.end(), log.name) != names_.end()) return Verdict::kDone;
  if (renamedAgain(log)) return Verdict::kDone;
  if (!log.fromName) return log.publishedAt < publishedAt_ ? Verdict::kDone : Verdict::kNotDone;
  // Names sort by their second first, as logs placed by their names are taken.
  if (!named_.empty() && log.name <= named_) return Verdict::kDone;
  if (log.publishedAt + LogFile::kPublishWindow <= publishedAt_) return Verdict::kDone;
  if (log.publishedAt >= publishedAt_) return Verdict::kNotDone;
  return Verdict::kUnknown;
}

void FollowPosition::advance(const LogFile& log) {
  if (names_.empty() || log.publishedAt > publishedAt_) {
    publishedAt_ = log.publishedAt;
    names_.assign(1, log.name);
  } else if (log.publishedAt == publishedAt_) {
    if (std::find(names_.begin(), names_.end(), log.name) == names_.end())
      names_.push_back(log.name);
  }
  // A log with an earlier time (the clock went back, or one placed by its name that could not be
  // told) is done from now on by its name, or by the time.
  if (log.fromName && log.name > named_) named_ = log.name;
  // Once the position is a window past it, the time alone decides every log it would.
  LogName last;
  if (!named_.empty() && LogName::parse(named_, last) && doneByName(last)) named_.clear();
}

std::string FollowPosition::serialize() const {
  if (names_.empty()) return "";
  std::string text = std::to_string(publishedAt_);
  for (const std::string& name : names_) text += " " + name;
  if (!named_.empty()) text += " named=" + named_;
  return text + "\n";
}

namespace {

// A damaged position may be anything, a huge file even: a complaint quotes only its beginning.
std::string shown(const std::string& text) {
  return text.size() <= 80 ? text : text.substr(0, 80) + "...";
}

bool publishedName(const std::string& name) {
  LogName parsed;
  return LogName::parse(name, parsed) && parsed.published && name.find('/') == std::string::npos;
}

}  // namespace

FollowPosition FollowPosition::parse(const std::string& text) {
  FollowPosition position;
  std::istringstream in(text);
  std::string time;
  if (!(in >> time)) return position;  // empty: nothing done yet
  std::size_t used = 0;
  try {
    position.publishedAt_ = std::stoll(time, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used != time.size()) throw std::runtime_error("not a log time: \"" + shown(time) + "\"");
  static const std::string kNamed = "named=";
  for (std::string name; in >> name;) {
    if (name.compare(0, kNamed.size(), kNamed) == 0 && !position.names_.empty() &&
        position.named_.empty() && publishedName(name.substr(kNamed.size()))) {
      position.named_ = name.substr(kNamed.size());
      continue;
    }
    if (!publishedName(name) || !position.named_.empty())
      throw std::runtime_error("not a log name: \"" + shown(name) + "\"");
    position.names_.push_back(name);
  }
  if (position.names_.empty()) throw std::runtime_error("no log name after the time");
  return position;
}
