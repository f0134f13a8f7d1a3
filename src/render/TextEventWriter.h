// A listing for people: a line per log, a header line per event and a line per field.
//
//   == 000000006553f103_00000000000004d2.fbl  transaction 1234  2023-11-14T22:13:23Z
//   #0 insert CUSTOMER  (position 5)
//     ID = 5
//     NAME = "Ada"
//     DOC = "JVBERi0xLjcKJeLjz9MK"... (3145728 bytes)
//   #1 update CUSTOMER  (position 31)
//     ID = 5
//   * NAME = "Ada" -> "Bob"
//   ? DOC = <unavailable> -> "JVBERi0xLjcKJeLjz9MK"... (3145728 bytes)
//   #2 sql 7  (position 60)
//     "update customer set rank = rank + 1"
//   == end: 3 events
//
// Values are shown as in JSON (ValueRenderer), strings quoted; strings, statements and names are
// escaped exactly as the JSON output escapes them (JsonOutput::escape), so that a control
// character never breaks a line of the listing and reads the same in both formats. An update
// shows an unchanged field once, a changed one as old -> new marked "*", and one whose old or new
// value the log does not carry (an old blob) as old -> new marked "?": it may or may not have
// changed. Such a value shows as <unavailable>, unquoted, never to be taken for a string. A text
// longer than kShownBytes is cut there (at a character's start), followed by "..." and the
// value's size in the log (above, the cut texts are shorter still); JSON keeps it whole.
#pragma once

#include <string>

#include "EventWriter.h"
#include "ValueRenderer.h"

class TextEventWriter : public EventWriter {
 public:
  // The longest value text shown whole.
  static constexpr std::size_t kShownBytes = 200;

  explicit TextEventWriter(const EventFormat& format);

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  void endLog(const ChangeEvent& end) override;

  std::string_view pending() const override { return out_; }
  void clear() override { out_.clear(); }

 private:
  struct Sink;
  void value(const FieldValue& v);
  // Whether two present values are the same as the log holds them.
  static bool same(const FieldValue& a, const FieldValue& b);
  // Text escaped as in JSON, by the JSON writer's own function; quoted() adds the quotes.
  void escaped(std::string_view s);
  void quoted(std::string_view s);
  // A name from the log, made valid UTF-8 and escaped.
  void name(std::string_view s);

  EventFormat format_;
  ValueRenderer renderer_;
  bool snapshot_ = false;  // the log is a snapshot file
  std::string out_;
  std::string scratch_;
};
