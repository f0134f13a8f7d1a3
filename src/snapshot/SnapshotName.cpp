#include "SnapshotName.h"

#include <cstdio>
#include <cstring>

std::string SnapshotName::text() const {
  char name[64];
  std::snprintf(name, sizeof name, "snapshot-%16.16llx-%04u-%06u%s",
                static_cast<unsigned long long>(boundary), table, chunk, kSuffix);
  return name;
}

bool SnapshotName::isSnapshotFile(const std::string& path) {
  const std::size_t n = std::strlen(kSuffix);
  return path.size() > n && path.compare(path.size() - n, n, kSuffix) == 0;
}

bool SnapshotName::parse(const std::string& path, SnapshotName& name) {
  const std::size_t slash = path.rfind('/');
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  // snapshot- (9) + 16 + - + 4 + - + 6 + .fbs
  if (base.size() != 9 + 16 + 1 + 4 + 1 + 6 + 4 || base.compare(0, 9, "snapshot-") != 0 ||
      base[25] != '-' || base[30] != '-' || base.compare(37, 4, kSuffix) != 0)
    return false;
  auto digits = [&](std::size_t at, std::size_t n, int base16, std::uint64_t& out) {
    out = 0;
    for (std::size_t i = at; i < at + n; ++i) {
      const char c = base[i];
      int d;
      if (c >= '0' && c <= '9')
        d = c - '0';
      else if (base16 && c >= 'a' && c <= 'f')
        d = c - 'a' + 10;
      else
        return false;
      out = out * (base16 ? 16 : 10) + static_cast<std::uint64_t>(d);
    }
    return true;
  };
  std::uint64_t boundary, table, chunk;
  if (!digits(9, 16, 1, boundary) || !digits(26, 4, 0, table) || !digits(31, 6, 0, chunk))
    return false;
  name.boundary = boundary;
  name.table = static_cast<std::uint32_t>(table);
  name.chunk = static_cast<std::uint32_t>(chunk);
  return true;
}
