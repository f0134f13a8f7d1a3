// Where the events of logs go: a stream of lines, a message broker. A sink receives each log's
// events between beginLog and endLog; once endLog has returned, everything of that log has been
// delivered, so a follower may move its position past it.
#pragma once

#include "ChangeEvent.h"
#include "EventFormat.h"
#include "LogFile.h"

class EventSink {
 public:
  virtual ~EventSink() = default;

  virtual void beginLog(const LogInfo& log) = 0;
  virtual void event(const ChangeEvent& event) = 0;
  virtual void endLog(const ChangeEvent& end) = 0;

  // Decodes the log at path and hands its events over, from beginLog to endLog. A log that does
  // not decode throws LogFormatError after the events before the damage were handed over.
  void send(const LogFile& log);

  static LogInfo infoOf(const LogFile& log);
};
