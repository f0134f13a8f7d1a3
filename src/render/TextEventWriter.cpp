#include "TextEventWriter.h"

#include <charconv>

#include "JsonOutput.h"

struct TextEventWriter::Sink {
  TextEventWriter& w;
  void null() { w.out_ += "null"; }
  void boolean(bool b) { w.out_ += b ? "true" : "false"; }
  void integer(std::int64_t i) { w.out_ += std::to_string(i); }
  void real(double d) {
    // The shortest text that reads back as the same double, as in JSON.
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, d);
    w.out_.append(text, result.ptr);
  }
  void string(std::string_view s) { w.quoted(s); }
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
  Sink sink{*this};
  renderer_.render(v, sink);
}

void TextEventWriter::beginLog(const LogInfo& log) {
  out_ += "== " + log.file + "  transaction " + std::to_string(log.transaction) + "  ";
  ValueText::appendIsoUtc(out_, log.time);
  out_.push_back('\n');
}

void TextEventWriter::event(const ChangeEvent& event) {
  using Kind = ChangeEvent::Kind;
  static const char* const kOps[] = {"insert", "update", "delete", "sql"};
  out_ += "#" + std::to_string(event.index) + " " + kOps[static_cast<int>(event.kind)] + " ";
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
    out_ += "  ";
    name(f.name);
    out_ += " = ";
    if (event.kind == Kind::kUpdate) {
      value(f.before);
      out_ += " -> ";
      value(f.after);
    } else {
      value(event.kind == Kind::kInsert ? f.after : f.before);
    }
    out_.push_back('\n');
  }
}

void TextEventWriter::endLog(const ChangeEvent& end) {
  out_ += "== end: " + std::to_string(end.index) + (end.index == 1 ? " event\n" : " events\n");
}
