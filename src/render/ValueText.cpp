#include "ValueText.h"

#include <cmath>
#include <cstdio>

namespace ValueText {

namespace {

// Appends n as exactly width digits, zero-padded (n < 10^width).
void appendDigits(std::string& out, std::uint64_t n, int width) {
  char digits[20];
  for (int i = width - 1; i >= 0; --i) {
    digits[i] = static_cast<char>('0' + n % 10);
    n /= 10;
  }
  out.append(digits, static_cast<std::size_t>(width));
}

void appendUnsigned(std::string& out, std::uint64_t n) {
  char digits[20];
  int i = 20;
  do {
    digits[--i] = static_cast<char>('0' + n % 10);
    n /= 10;
  } while (n);
  out.append(digits + i, static_cast<std::size_t>(20 - i));
}

}  // namespace

void appendScaled(std::string& out, std::int64_t value, int scale) {
  // The magnitude as unsigned, so that the smallest int64 has one too.
  const std::uint64_t magnitude =
      value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  if (value < 0) out.push_back('-');
  if (scale < -40 || scale > 40) {
    // No server scale comes near; a damaged one is still shown exactly, in exponent form.
    appendUnsigned(out, magnitude);
    out.push_back('E');
    out += std::to_string(scale);
    return;
  }
  if (scale >= 0) {
    appendUnsigned(out, magnitude);
    if (magnitude != 0) out.append(static_cast<std::size_t>(scale), '0');
    return;
  }
  // The digits with at least one before the point: 5 with two places is "0.05".
  char digits[48];
  int n = 0;
  std::uint64_t rest = magnitude;
  do {
    digits[n++] = static_cast<char>('0' + rest % 10);
    rest /= 10;
  } while (rest);
  const int places = -scale;
  while (n <= places) digits[n++] = '0';
  char text[50];
  int t = 0;
  for (int i = n - 1; i >= places; --i) text[t++] = digits[i];
  text[t++] = '.';
  for (int i = places - 1; i >= 0; --i) text[t++] = digits[i];
  out.append(text, static_cast<std::size_t>(t));
}

double scaledToDouble(std::int64_t value, int scale) {
  return static_cast<double>(value) * std::pow(10.0, scale);
}

std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t yoe = year - era * 400;
  const std::int64_t doy = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void civilFromDays(std::int64_t days, std::int64_t& year, unsigned& month, unsigned& day) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const std::int64_t doe = days - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  day = static_cast<unsigned>(doy - (153 * mp + 2) / 5 + 1);
  month = static_cast<unsigned>(mp < 10 ? mp + 3 : mp - 9);
  year = yoe + era * 400 + (month <= 2);
}

namespace {

// Writes n as exactly width digits, zero-padded, at p; returns the end.
char* digitsAt(char* p, std::uint32_t n, int width) {
  for (int i = width - 1; i >= 0; --i) {
    p[i] = static_cast<char>('0' + n % 10);
    n /= 10;
  }
  return p + width;
}

// "YYYY-MM-DD" at p for a year of four digits; returns the end, or null for another year.
char* dateAt(char* p, std::int64_t day) {
  std::int64_t year;
  unsigned month;
  unsigned dayOfMonth;
  civilFromDays(day - kUnixEpochDay, year, month, dayOfMonth);
  if (year < 0 || year > 9999) return nullptr;
  p = digitsAt(p, static_cast<std::uint32_t>(year), 4);
  *p++ = '-';
  p = digitsAt(p, month, 2);
  *p++ = '-';
  return digitsAt(p, dayOfMonth, 2);
}

// "HH:MM:SS.ffff" at p for a time below 100 hours; returns the end, or null for another.
char* timeAt(char* p, std::uint32_t units) {
  const std::uint32_t seconds = units / 10000;
  const std::uint32_t hours = seconds / 3600;
  if (hours >= 100) return nullptr;
  p = digitsAt(p, hours, 2);
  *p++ = ':';
  p = digitsAt(p, seconds / 60 % 60, 2);
  *p++ = ':';
  p = digitsAt(p, seconds % 60, 2);
  *p++ = '.';
  return digitsAt(p, units % 10000, 4);
}

}  // namespace

void appendDate(std::string& out, std::int64_t day) {
  // The whole text at once where it has its usual form.
  char text[10];
  if (const char* end = dateAt(text, day)) {
    out.append(text, static_cast<std::size_t>(end - text));
    return;
  }
  std::int64_t year;
  unsigned month;
  unsigned dayOfMonth;
  civilFromDays(day - kUnixEpochDay, year, month, dayOfMonth);
  if (year >= 0 && year <= 9999) {
    appendDigits(out, static_cast<std::uint64_t>(year), 4);
  } else {
    // Outside the server's range only a damaged value lands here; it is still shown whole.
    char text[32];
    std::snprintf(text, sizeof text, "%lld", static_cast<long long>(year));
    out += text;
  }
  out.push_back('-');
  appendDigits(out, month, 2);
  out.push_back('-');
  appendDigits(out, dayOfMonth, 2);
}

void appendTime(std::string& out, std::uint32_t units) {
  char text[13];
  if (const char* end = timeAt(text, units)) {
    out.append(text, static_cast<std::size_t>(end - text));
    return;
  }
  const std::uint32_t seconds = units / 10000;
  const std::uint32_t hours = seconds / 3600;
  // A time of day is below 24 hours; a larger value shows its hours in full.
  if (hours < 100)
    appendDigits(out, hours, 2);
  else
    appendUnsigned(out, hours);
  out.push_back(':');
  appendDigits(out, seconds / 60 % 60, 2);
  out.push_back(':');
  appendDigits(out, seconds % 60, 2);
  out.push_back('.');
  appendDigits(out, units % 10000, 4);
}

void appendTimestamp(std::string& out, std::int64_t day, std::uint32_t units) {
  char text[24];
  char* end = dateAt(text, day);
  if (end) {
    *end++ = 'T';
    end = timeAt(end, units);
  }
  if (end) {
    out.append(text, static_cast<std::size_t>(end - text));
    return;
  }
  appendDate(out, day);
  out.push_back('T');
  appendTime(out, units);
}

void appendIsoUtc(std::string& out, std::int64_t seconds) {
  const std::int64_t day = seconds >= 0 ? seconds / 86400 : (seconds - 86399) / 86400;
  const std::int64_t second = seconds - day * 86400;
  appendDate(out, day + kUnixEpochDay);
  out.push_back('T');
  appendDigits(out, static_cast<std::uint64_t>(second / 3600), 2);
  out.push_back(':');
  appendDigits(out, static_cast<std::uint64_t>(second / 60 % 60), 2);
  out.push_back(':');
  appendDigits(out, static_cast<std::uint64_t>(second % 60), 2);
  out.push_back('Z');
}

void appendBase64(std::string& out, std::string_view bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t n = bytes.size();
  const std::size_t start = out.size();
  out.resize(start + (n + 2) / 3 * 4);
  char* o = &out[start];
  for (; n >= 3; n -= 3, p += 3) {
    const std::uint32_t v = static_cast<std::uint32_t>(p[0]) << 16 | p[1] << 8 | p[2];
    *o++ = kAlphabet[v >> 18];
    *o++ = kAlphabet[v >> 12 & 63];
    *o++ = kAlphabet[v >> 6 & 63];
    *o++ = kAlphabet[v & 63];
  }
  if (n > 0) {
    const std::uint32_t v = static_cast<std::uint32_t>(p[0]) << 16 | (n > 1 ? p[1] << 8 : 0);
    *o++ = kAlphabet[v >> 18];
    *o++ = kAlphabet[v >> 12 & 63];
    *o++ = n > 1 ? kAlphabet[v >> 6 & 63] : '=';
    *o++ = '=';
  }
}

}  // namespace ValueText
