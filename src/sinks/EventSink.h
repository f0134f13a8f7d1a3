// Where the events of logs go: a stream of lines, a message broker. A sink receives each log's
// events between beginLog and endLog; once endLog has returned, everything of that log has been
// delivered, so a follower may move its position past it.
#pragma once

#include <string>

#include "ChangeEvent.h"
#include "EventFormat.h"
#include "LogFile.h"

class EventSink {
 public:
  virtual ~EventSink() = default;

  virtual void beginLog(const LogInfo& log) = 0;
  virtual void event(const ChangeEvent& event) = 0;
  virtual void endLog(const ChangeEvent& end) = 0;

  // A sink that keeps the follower's position itself stores it together with a log's last
  // events, so that both arrive or neither does. The follower then keeps no checkpoint file: it
  // loads the position from the sink and hands it the position after each log before the log.
  virtual bool keepsPosition() const { return false; }
  virtual std::string loadPosition() { return ""; }
  virtual void setPositionAfterLog(const std::string& /*serialized*/) {}

  // Decodes the log at path and hands its events over, from beginLog to endLog. A log that does
  // not decode throws LogFormatError after the events before the damage were handed over.
  void send(const LogFile& log) { send(log, infoOf(log)); }
  // The same with what is known of the log given (a snapshot file's last row, say).
  void send(const LogFile& log, const LogInfo& info);

  // A file ending in ".fbs" is a snapshot file.
  static LogInfo infoOf(const LogFile& log);
};
