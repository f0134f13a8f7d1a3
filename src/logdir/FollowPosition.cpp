#include "FollowPosition.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

FollowPosition::Verdict FollowPosition::check(const LogFile& log) const {
  if (names_.empty()) return Verdict::kNotDone;
  if (std::find(names_.begin(), names_.end(), log.name) != names_.end()) return Verdict::kDone;
  if (!log.fromName) return log.publishedAt < publishedAt_ ? Verdict::kDone : Verdict::kNotDone;
  if (log.publishedAt + LogFile::kPublishWindow <= publishedAt_) return Verdict::kDone;
  if (log.publishedAt >= publishedAt_) return Verdict::kNotDone;
  return Verdict::kUnknown;
}

void FollowPosition::advance(const LogFile& log) {
  if (names_.empty() || log.publishedAt > publishedAt_) {
    publishedAt_ = log.publishedAt;
    names_.assign(1, log.name);
  } else if (log.publishedAt == publishedAt_) {
    names_.push_back(log.name);
  }
  // A log with an earlier time (the clock went back) is already counted as done.
}

std::string FollowPosition::serialize() const {
  if (names_.empty()) return "";
  std::string text = std::to_string(publishedAt_);
  for (const std::string& name : names_) text += " " + name;
  return text + "\n";
}

namespace {

// A damaged position may be anything, a huge file even: a complaint quotes only its beginning.
std::string shown(const std::string& text) {
  return text.size() <= 80 ? text : text.substr(0, 80) + "...";
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
  for (std::string name; in >> name;) {
    LogName parsed;
    if (!LogName::parse(name, parsed) || !parsed.published)
      throw std::runtime_error("not a log name: \"" + shown(name) + "\"");
    position.names_.push_back(name);
  }
  if (position.names_.empty()) throw std::runtime_error("no log name after the time");
  return position;
}
