// Text forms of the values a change log carries, appended to a string.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ValueText {

// An exact decimal: 1234 with scale -2 is "12.34", 5 with scale -2 "0.05", -5 with scale -1
// "-0.5"; a positive scale appends zeros (12 with scale 2 is "1200").
void appendScaled(std::string& out, std::int64_t value, int scale);
// value * 10^scale as a double.
double scaledToDouble(std::int64_t value, int scale);
// "YYYY-MM-DD" of a day counted from 1858-11-17 (day 0).
void appendDate(std::string& out, std::int64_t day);
// "HH:MM:SS.ffff" of units of 1/10000 s since midnight.
void appendTime(std::string& out, std::uint32_t units);
// "YYYY-MM-DDTHH:MM:SS.ffff".
void appendTimestamp(std::string& out, std::int64_t day, std::uint32_t units);
// "YYYY-MM-DDTHH:MM:SSZ" of seconds since 1970-01-01 UTC.
void appendIsoUtc(std::string& out, std::int64_t seconds);
// Standard base64 with padding.
void appendBase64(std::string& out, std::string_view bytes);

// Days from 1970-01-01 to a civil date, and back; valid far beyond any year a log holds.
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day);
void civilFromDays(std::int64_t days, std::int64_t& year, unsigned& month, unsigned& day);

// Days from 1858-11-17 (the server's day 0) to 1970-01-01.
constexpr std::int64_t kUnixEpochDay = 40587;

}  // namespace ValueText
