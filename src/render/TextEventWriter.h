// A listing for people: a line per log, a header line per event and a line per field.
//
//   == 000000006553f103_00000000000004d2.fbl  transaction 1234  2023-11-14T22:13:23Z
//   #0 insert CUSTOMER  (position 5)
//     ID = 5
//     NAME = "Ada"
//   #1 update CUSTOMER  (position 31)
//     NAME = "Ada" -> "Bob"
//   #2 sql 7  (position 60)
//     "update customer set rank = rank + 1"
//   == end: 3 events
//
// Values are shown as in JSON (ValueRenderer), strings quoted; strings, statements and names are
// escaped exactly as the JSON output escapes them (JsonOutput::escape), so that a control
// character never breaks a line of the listing and reads the same in both formats.
#pragma once

#include <string>

#include "EventWriter.h"
#include "ValueRenderer.h"

class TextEventWriter : public EventWriter {
 public:
  explicit TextEventWriter(const EventFormat& format);

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  void endLog(const ChangeEvent& end) override;

  std::string_view pending() const override { return out_; }
  void clear() override { out_.clear(); }

 private:
  struct Sink;
  void value(const FieldValue& v);
  // Text escaped as in JSON, by the JSON writer's own function; quoted() adds the quotes.
  void escaped(std::string_view s);
  void quoted(std::string_view s);
  // A name from the log, made valid UTF-8 and escaped.
  void name(std::string_view s);

  EventFormat format_;
  ValueRenderer renderer_;
  std::string out_;
  std::string scratch_;
};
