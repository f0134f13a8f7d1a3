#include "LogRange.h"

#include <cstdio>
#include <cstdlib>

#include "ValueText.h"

bool LogRange::contains(const LogFile& log) const {
  if (since && log.parsed.time < *since) return false;
  if (until && log.parsed.time >= *until) return false;
  if (from && log.name < *from) return false;
  if (to && log.name > *to) return false;
  return true;
}

bool LogRange::endsBefore(const LogFile& log) const {
  return (until && log.parsed.time >= *until) || (to && log.name > *to);
}

bool LogRange::closedAt(std::int64_t now) const {
  if (until && now >= *until) return true;
  if (!to) return false;
  // Every name of that second or later sorts after the second's 16 hex digits alone.
  char prefix[24];
  std::snprintf(prefix, sizeof prefix, "%016llx", static_cast<unsigned long long>(now));
  return *to < prefix;
}

bool LogRange::parseTime(const std::string& text, std::int64_t& seconds) {
  if (!text.empty() && text[0] == '@') {
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str() + 1, &end, 10);
    if (end == text.c_str() + 1 || *end != '\0') return false;
    seconds = value;
    return true;
  }
  int year, month, day, hour = 0, minute = 0, second = 0, used = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &year, &month, &day, &used) != 3) return false;
  const char* rest = text.c_str() + used;
  if (*rest == 'T' || *rest == ' ') {
    int more = 0;
    if (std::sscanf(rest + 1, "%2d:%2d:%2d%n", &hour, &minute, &second, &more) != 3) return false;
    rest += 1 + more;
  }
  if (*rest == 'Z') ++rest;
  // Days past the month's end (2026-02-30) are refused rather than carried into the next month.
  static const int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  if (*rest != '\0' || month < 1 || month > 12 || day < 1 || day > kDays[month - 1] ||
      (month == 2 && day == 29 && !leap) || hour > 23 || minute > 59 || second > 60)
    return false;
  seconds =
      ValueText::daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) *
          86400 +
      hour * 3600 + minute * 60 + second;
  return true;
}
