#include "TextEventWriter.h"

#include <charconv>
#include <cstring>

#include "JsonOutput.h"

struct TextEventWriter::Sink {
  TextEventWriter& w;
  std::uint64_t size;  // the value's size in the log, for the note on a cut text
  void null() { w.out_ += "null"; }
  void boolean(bool b) { w.out_ += b ? "true" : "false"; }
  void integer(std::int64_t i) { w.out_ += std::to_string(i); }
  void real(double d) {
    // The shortest text that reads back as the same double, as in JSON.
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, d);
    w.out_.append(text, result.ptr);
  }
  void string(std::string_view s) {
    if (s.size() <= kShownBytes) return w.quoted(s);
    // Cut at the start of a UTF-8 character, the way ValueRenderer cuts.
    std::size_t n = kShownBytes;
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
    w.quoted(s.substr(0, n));
    w.out_ += "... (" + std::to_string(size) + " bytes)";
  }
};

TextEventWriter::TextEventWriter(const EventFormat& format) : format_(format), renderer_(format_) {
  // A listing is read by people, not parsed: its integers are exact as numbers.
  format_.bigintAsNumber = true;
}

void TextEventWriter::escaped(std::string_view s) {
  const std::size_t at = out_.size();
  out_.resize(at + s.size() * 6);
  char* end = JsonOutput::escape(s, &out_[at]);
  out_.resize(static_cast<std::size_t>(end - out_.data()));
}

void TextEventWriter::quoted(std::string_view s) {
  out_.push_back('"');
  escaped(s);
  out_.push_back('"');
}

void TextEventWriter::name(std::string_view s) {
  scratch_.clear();
  CharacterSets::appendValidUtf8(s, scratch_);
  escaped(scratch_);
}

void TextEventWriter::value(const FieldValue& v) {
  if (!v.present()) {
    out_ += "<unavailable>";
    return;
  }
  Sink sink{*this, v.isBlobLike() ? v.size : v.bytes.size()};
  renderer_.render(v, sink);
}

bool TextEventWriter::same(const FieldValue& a, const FieldValue& b) {
  using Kind = FieldValue::Kind;
  if (a.kind != b.kind) return false;
  if (a.kind == Kind::kAbsent || a.kind == Kind::kNull) return true;
  if (a.typeCode != b.typeCode) return false;
  switch (a.kind) {
    case Kind::kText:
      return a.charSet == b.charSet && a.bytes == b.bytes;
    case Kind::kShort:
    case Kind::kLong:
    case Kind::kInt64:
      return a.scale == b.scale && a.integer == b.integer;
    case Kind::kFloat:
    case Kind::kDouble:
      // Bit for bit: a NaN is the same NaN, and -0 is not 0.
      return std::memcmp(&a.real, &b.real, sizeof a.real) == 0;
    case Kind::kTimestamp:
      return a.integer == b.integer && a.time == b.time;
    case Kind::kBlob:
    case Kind::kArray:
      return a.streamed == b.streamed && a.size == b.size && a.bytes == b.bytes;
    default:
      return a.integer == b.integer;
  }
}

void TextEventWriter::beginLog(const LogInfo& log) {
  snapshot_ = log.snapshot;
  out_ += "== " + log.file + "  transaction " + std::to_string(log.transaction) + "  ";
  ValueText::appendIsoUtc(out_, log.time);
  out_.push_back('\n');
}

void TextEventWriter::event(const ChangeEvent& event) {
  using Kind = ChangeEvent::Kind;
  static const char* const kOps[] = {"insert", "update", "delete", "sql"};
  // A snapshot's rows are rows read, not inserted.
  const char* op =
      snapshot_ && event.kind == Kind::kInsert ? "read" : kOps[static_cast<int>(event.kind)];
  out_ += "#" + std::to_string(event.index) + " " + op + " ";
  if (event.kind == Kind::kSql) {
    out_ += std::to_string(event.sqlNumber);
  } else {
    name(event.relation);
  }
  out_ += "  (position " + std::to_string(event.position) + ")\n";
  if (event.kind == Kind::kSql) {
    out_ += "  ";
    scratch_.clear();
    CharacterSets::appendValidUtf8(event.sqlText, scratch_);
    quoted(scratch_);
    out_.push_back('\n');
    return;
  }
  for (const FieldChange& f : event.fields) {
    const bool update = event.kind == Kind::kUpdate;
    // An update's field is shown once when unchanged, as old -> new with a mark when changed, and
    // so with a question mark when the log lacks a value to tell by.
    const bool known = f.before.present() && f.after.present();
    const bool changed = update && (!known || !same(f.before, f.after));
    out_ += !changed ? "  " : known ? "* " : "? ";
    name(f.name);
    out_ += " = ";
    if (changed) {
      value(f.before);
      out_ += " -> ";
      value(f.after);
    } else {
      value(event.kind == Kind::kDelete ? f.before : f.after);
    }
    out_.push_back('\n');
  }
}

void TextEventWriter::endLog(const ChangeEvent& end) {
  out_ += "== end: " + std::to_string(end.index) + (end.index == 1 ? " event\n" : " events\n");
}
