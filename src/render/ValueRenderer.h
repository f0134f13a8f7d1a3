// Turns a field value into what a reader of JSON or of a listing sees, the same for both:
//   integers without scale as numbers, but 64-bit ones as decimal strings unless bigintAsNumber;
//   scaled integers as exact decimal strings (or doubles);
//   doubles as numbers, non-finite ones as "NaN", "Infinity", "-Infinity";
//   dates "YYYY-MM-DD", times "HH:MM:SS.ffff", timestamps "YYYY-MM-DDTHH:MM:SS.ffff";
//   booleans; texts in UTF-8 where their character set is readable, else base64;
//   blobs and arrays as base64 (blobs as text on request);
//   a value the log does not carry as "__unavailable", so that it is never taken for null (the
//   listing shows <unavailable> itself, unquoted, not to be taken for a string).
// The sink receives exactly one of null(), boolean(), integer(), real() (finite) or string().
#pragma once

#include <charconv>
#include <cmath>
#include <string>
#include <type_traits>
#include <utility>

#include "CharacterSets.h"
#include "EventFormat.h"
#include "FieldValue.h"
#include "ValueText.h"

class ValueRenderer {
 public:
  static constexpr char kUnavailable[] = "__unavailable";
  static constexpr char kOmitted[] = "__omitted";

  explicit ValueRenderer(const EventFormat& format) : format_(format) {}

  // Whether Sink has plain(std::string_view): a string known to need no escape.
  template <typename Sink, typename = void>
  struct HasPlain : std::false_type {};
  template <typename Sink>
  struct HasPlain<Sink, std::void_t<decltype(std::declval<Sink&>().plain(std::string_view()))>>
      : std::true_type {};

  template <typename Sink>
  void render(const FieldValue& v, Sink& sink) {
    using Kind = FieldValue::Kind;
    scratch_.clear();
    switch (v.kind) {
      case Kind::kAbsent:
        return sink.string(kUnavailable);
      case Kind::kNull:
        return sink.null();
      case Kind::kInt64:
        if (v.scale == 0 && !format_.bigintAsNumber) {
          char digits[24];
          return sink.string(integerText(v.integer, digits));
        }
        [[fallthrough]];
      case Kind::kShort:
      case Kind::kLong:
        if (v.scale == 0) return sink.integer(v.integer);
        if (format_.decimalAsDouble)
          return real(ValueText::scaledToDouble(v.integer, v.scale), sink);
        ValueText::appendScaled(scratch_, v.integer, v.scale);
        break;
      case Kind::kFloat:
      case Kind::kDouble:
        return real(v.real, sink);
      case Kind::kDate:
        ValueText::appendDate(scratch_, v.integer);
        break;
      case Kind::kTime:
        ValueText::appendTime(scratch_, static_cast<std::uint32_t>(v.integer));
        break;
      case Kind::kTimestamp:
        ValueText::appendTimestamp(scratch_, v.integer, v.time);
        break;
      case Kind::kBoolean:
        return sink.boolean(v.integer != 0);
      case Kind::kText:
        if (!CharacterSets::appendUtf8(v.charSet, v.bytes, scratch_))
          ValueText::appendBase64(scratch_, v.bytes);
        break;
      case Kind::kBlob:
        if (format_.blobsAsText)
          CharacterSets::appendValidUtf8(v.bytes, scratch_);
        else
          ValueText::appendBase64(scratch_, v.bytes);
        break;
      case Kind::kArray:
        ValueText::appendBase64(scratch_, v.bytes);
        break;
    }
    if (format_.maxValueBytes > 0 && scratch_.size() > format_.maxValueBytes) {
      if (format_.omitLarge) return sink.string(kOmitted);
      cut(scratch_, format_.maxValueBytes);
    }
    // Numbers, dates, times and base64 hold no quote, backslash or control character, nothing an
    // output escapes: a sink that can take such a text as it is (plain()) is spared the search.
    const bool ascii = v.kind != Kind::kText && !(v.kind == Kind::kBlob && format_.blobsAsText);
    if constexpr (HasPlain<Sink>::value) {
      if (ascii) return sink.plain(scratch_);
    }
    sink.string(scratch_);
  }

  // The decimal digits of i, in digits (at least 21 bytes).
  static std::string_view integerText(std::int64_t i, char* digits) {
    const auto result = std::to_chars(digits, digits + 21, i);
    return std::string_view(digits, static_cast<std::size_t>(result.ptr - digits));
  }

  // Cuts text to at most n bytes, at the start of a UTF-8 character (base64 is ASCII, so its
  // cut keeps whole characters too; a consumer decodes the longest whole group of four).
  static void cut(std::string& text, std::size_t n) {
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
    text.resize(n);
  }

 private:
  template <typename Sink>
  void real(double d, Sink& sink) {
    if (std::isnan(d)) return sink.string("NaN");
    if (std::isinf(d)) return sink.string(d > 0 ? "Infinity" : "-Infinity");
    sink.real(d);
  }

  const EventFormat& format_;
  std::string scratch_;
};
