#include "SnapshotBoundary.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

SnapshotBoundary::SnapshotBoundary(std::uint64_t transaction, std::vector<std::uint64_t> active)
    : transaction_(transaction), active_(std::move(active)) {
  std::sort(active_.begin(), active_.end());
  active_.erase(std::unique(active_.begin(), active_.end()), active_.end());
}

bool SnapshotBoundary::contains(std::uint64_t t) const {
  return t < transaction_ && !std::binary_search(active_.begin(), active_.end(), t);
}

std::string SnapshotBoundary::text() const {
  std::string out = std::to_string(transaction_) + " ";
  if (active_.empty()) return out + "-";
  for (std::size_t i = 0; i < active_.size(); ++i) {
    if (i) out += ',';
    out += std::to_string(active_[i]);
  }
  return out;
}

namespace {

std::uint64_t number(const std::string& text, const std::string& whole) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 20)
    throw std::runtime_error("not a snapshot boundary: \"" + whole + "\"");
  return std::stoull(text);
}

}  // namespace

SnapshotBoundary SnapshotBoundary::parse(const std::string& text) {
  const std::size_t space = text.find(' ');
  if (space == std::string::npos)
    throw std::runtime_error("not a snapshot boundary: \"" + text + "\"");
  const std::uint64_t transaction = number(text.substr(0, space), text);
  const std::string list = text.substr(space + 1);
  std::vector<std::uint64_t> active;
  if (list != "-") {
    std::istringstream in(list);
    std::string item;
    while (std::getline(in, item, ',')) active.push_back(number(item, text));
    if (active.empty() || list.back() == ',')
      throw std::runtime_error("not a snapshot boundary: \"" + text + "\"");
  }
  return SnapshotBoundary(transaction, std::move(active));
}
