#include "LogName.h"

#include <cstring>

namespace {

bool parseHex16(const char* p, std::uint64_t& value) {
  value = 0;
  for (int i = 0; i < 16; ++i) {
    const char c = p[i];
    unsigned digit;
    if (c >= '0' && c <= '9')
      digit = static_cast<unsigned>(c - '0');
    else if (c >= 'a' && c <= 'f')
      digit = static_cast<unsigned>(c - 'a' + 10);
    else
      return false;
    value = value << 4 | digit;
  }
  return true;
}

}  // namespace

std::string LogName::baseName(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool LogName::parse(const std::string& path, LogName& name) {
  const std::size_t slash = path.find_last_of('/');
  const std::size_t start = slash == std::string::npos ? 0 : slash + 1;
  return parseBase(path.data() + start, path.size() - start, name);
}

bool LogName::parseBase(const char* base, std::size_t size, LogName& name) {
  // 16 digits, "_", 16 digits, ".fbl" or ".tmp"
  if (size != 37 || base[16] != '_' || base[33] != '.') return false;
  const bool published = std::memcmp(base + 34, "fbl", 3) == 0;
  if (!published && std::memcmp(base + 34, "tmp", 3) != 0) return false;
  std::uint64_t time;
  if (!parseHex16(base, time) || !parseHex16(base + 17, name.transaction)) return false;
  name.time = static_cast<std::int64_t>(time);
  name.published = published;
  return true;
}
