// Writes the events of logs into a buffer, in one of the output formats. The caller hands what is
// pending on (to a file, a message, a stream entry) and clears it.
//
//   writer.beginLog(info);
//   while ((e = decoder.next()).kind != kEnd) writer.event(e);
//   writer.endLog(e);
#pragma once

#include <memory>
#include <string_view>

#include "ChangeEvent.h"
#include "EventFormat.h"

class EventWriter {
 public:
  virtual ~EventWriter() = default;

  virtual void beginLog(const LogInfo& log) = 0;
  virtual void event(const ChangeEvent& event) = 0;
  // end is the log's kEnd event.
  virtual void endLog(const ChangeEvent& end) = 0;

  // What has been written since the last clear().
  virtual std::string_view pending() const = 0;
  virtual void clear() = 0;

  // "json" or "text"; null for another name.
  static std::unique_ptr<EventWriter> create(const std::string& name, const EventFormat& format);
};
