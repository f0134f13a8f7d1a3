// The output stream of the JSON writers: RapidJSON's writer appends to a growing buffer.
// (RapidJSON's own StringBuffer computes an offset from a null pointer on its first write, which
// undefined behaviour checks rightly report.) The writer reserves room before each run of
// characters and then stores them without further checks, as it does with its own buffer.
#pragma once

#include <rapidjson/internal/dtoa.h>
#include <rapidjson/writer.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

class JsonOutput {
 public:
  using Ch = char;
  void Put(char c) {
    Reserve(1);
    data_[size_++] = c;
  }
  void PutUnsafe(char c) { data_[size_++] = c; }
  void Flush() {}
  void Reserve(std::size_t count) {
    if (capacity_ - size_ >= count) return;
    std::size_t capacity = capacity_ ? capacity_ * 2 : 4096;
    while (capacity - size_ < count) capacity *= 2;
    std::unique_ptr<char[]> bigger(new char[capacity]);
    if (size_) std::memcpy(bigger.get(), data_.get(), size_);
    data_ = std::move(bigger);
    capacity_ = capacity;
  }
  void append(const char* p, std::size_t n) {
    Reserve(n);
    std::memcpy(data_.get() + size_, p, n);
    size_ += n;
  }
  void append(std::string_view text) { append(text.data(), text.size()); }
  void appendInteger(std::int64_t n) {
    Reserve(20);
    size_ = static_cast<std::size_t>(
        std::to_chars(data_.get() + size_, data_.get() + size_ + 20, n).ptr - data_.get());
  }
  // A finite double as RapidJSON's writer writes it (the shortest text that reads back exactly).
  void appendDouble(double d) {
    Reserve(25);
    size_ = static_cast<std::size_t>(
        rapidjson::internal::dtoa(d, data_.get() + size_,
                                  rapidjson::Writer<JsonOutput>::kDefaultMaxDecimalPlaces) -
        data_.get());
  }
  // Appends the decimal digits of n.
  void appendUnsigned(std::uint64_t n) {
    Reserve(20);
    size_ = static_cast<std::size_t>(
        std::to_chars(data_.get() + size_, data_.get() + size_ + 20, n).ptr - data_.get());
  }
  // Appends text as a JSON string, quoted and escaped; runs that need no escape are copied whole.
  void appendString(std::string_view text);
  // Writes text escaped as inside a JSON string, without the quotes, to out, which has room for
  // 6 bytes per byte of text; returns the end. The quote, the backslash and the control characters
  // (00 to 1F, and DEL, which JSON may leave as it is but a terminal would hide) are escaped, in
  // JSON's short forms where it has one: the one escaping of both output formats.
  static char* escape(std::string_view text, char* out);

  std::string_view view() const { return std::string_view(data_.get(), size_); }
  std::size_t size() const { return size_; }
  void resize(std::size_t size) { size_ = size; }  // only ever shorter
  void clear() { size_ = 0; }

 private:
  std::unique_ptr<char[]> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

inline void JsonOutput::appendString(std::string_view text) {
  Reserve(text.size() * 6 + 2);
  char* out = data_.get() + size_;
  *out++ = '"';
  out = escape(text, out);
  *out++ = '"';
  size_ = static_cast<std::size_t>(out - data_.get());
}

inline char* JsonOutput::escape(std::string_view text, char* out) {
  static const char kHex[] = "0123456789abcdef";
  // The bytes not copied as they are.
  static constexpr std::array<bool, 256> kEscaped = [] {
    std::array<bool, 256> escaped{};
    for (int c = 0; c < 0x20; ++c) escaped[c] = true;
    escaped['"'] = escaped['\\'] = escaped[0x7F] = true;
    return escaped;
  }();
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    const unsigned char* run = p;
    while (p < end && !kEscaped[*p]) ++p;
    std::memcpy(out, run, static_cast<std::size_t>(p - run));
    out += p - run;
    if (p == end) break;
    const unsigned char c = *p++;
    *out++ = '\\';
    switch (c) {
      case '"':
        *out++ = '"';
        break;
      case '\\':
        *out++ = '\\';
        break;
      case '\b':
        *out++ = 'b';
        break;
      case '\f':
        *out++ = 'f';
        break;
      case '\n':
        *out++ = 'n';
        break;
      case '\r':
        *out++ = 'r';
        break;
      case '\t':
        *out++ = 't';
        break;
      default:
        *out++ = 'u', *out++ = '0', *out++ = '0';
        *out++ = kHex[c >> 4], *out++ = kHex[c & 15];
    }
  }
  return out;
}

namespace rapidjson {
inline void PutReserve(JsonOutput& out, size_t count) { out.Reserve(count); }
inline void PutUnsafe(JsonOutput& out, char c) { out.PutUnsafe(c); }
}  // namespace rapidjson
