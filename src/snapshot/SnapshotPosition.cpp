#include "SnapshotPosition.h"

#include <stdexcept>

std::string SnapshotPosition::serialize() const {
  return "snapshot\t" + std::to_string(files) + "\t" + (logs.empty() ? "" : logs.serialize());
}

SnapshotPosition SnapshotPosition::parse(const std::string& text) {
  SnapshotPosition p;
  if (text.empty()) return p;
  const std::size_t first = text.find('\t');
  const std::size_t second = first == std::string::npos ? first : text.find('\t', first + 1);
  if (text.compare(0, first, "snapshot") != 0 || second == std::string::npos)
    throw std::runtime_error(
        "the position was not stored by a consumer that started from a "
        "snapshot");
  const std::string files = text.substr(first + 1, second - first - 1);
  if (files.empty() || files.size() > 9 ||
      files.find_first_not_of("0123456789") != std::string::npos)
    throw std::runtime_error("a snapshot position with \"" + files + "\" for its files");
  p.files = static_cast<std::uint32_t>(std::stoul(files));
  const std::string logs = text.substr(second + 1);
  if (!logs.empty()) p.logs = FollowPosition::parse(logs);
  return p;
}
