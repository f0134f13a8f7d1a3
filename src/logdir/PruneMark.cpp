#include "PruneMark.h"

#include <sstream>
#include <stdexcept>

#include "LogDirectory.h"

PruneMark::PruneMark(const std::string& directory)
    // Every consumer of the directory reads the mark: its group (the directory's readers) may too.
    : file_(LogDirectory::withSlash(directory) + kFileName, 0640) {
  try {
    position_ = FollowPosition::parse(file_.load());
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("the prune mark " + file_.path() + " is damaged: " + e.what());
  }
}

bool PruneMark::covers(const LogFile& log) const { return position_.isDone(log); }

std::string PruneMark::missedBy(const FollowPosition& position) const {
  if (position.empty() || position_.empty()) return "";
  // The mark names the logs of the last time pruned, and the greatest name pruned by its name
  // while that still decides anything: a position that took those took every log pruned before.
  std::istringstream words(position_.serialize());
  std::int64_t time = 0;
  words >> time;
  static const std::string kNamed = "named=";
  for (std::string word; words >> word;) {
    LogFile log;
    log.fromName = word.compare(0, kNamed.size(), kNamed) == 0;
    log.name = log.fromName ? word.substr(kNamed.size()) : word;
    LogName::parse(log.name, log.parsed);
    log.publishedAt = log.fromName ? log.parsed.time * 1000000000 : time;
    log.changed = log.publishedAt;
    if (position.check(log) == FollowPosition::Verdict::kNotDone) return log.name;
  }
  return "";
}

void PruneMark::record(const std::vector<LogFile>& logs) {
  if (logs.empty()) return;
  FollowPosition after = position_;
  for (const LogFile& log : logs) after.advance(log);
  file_.store(after.serialize());
  position_ = after;
}

void PruneMark::check(const std::string& directory, const FollowPosition& position) {
  const PruneMark mark(directory);
  const std::string missed = mark.missedBy(position);
  if (missed.empty()) return;
  throw std::runtime_error(
      "logs this consumer had not taken were pruned from " + directory + " (" + missed +
      " among them); going on would skip them. Name the consumer in fbcdc prune --consumer; to go "
      "on without the pruned logs, give it the position in " +
      mark.path());
}
