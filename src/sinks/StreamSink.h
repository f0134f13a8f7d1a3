// A sink that writes events as lines to a stdio stream, in the format of its EventWriter. Output
// goes to the stream's file by write(2) in pieces of 64 KiB or more, and at the end of every log.
//
// A follower stores its position durably after each log, so the log's events must be as durable
// first: with durable set and the stream a regular file, each log's output is synced to disk
// before endLog returns. A pipe or a terminal cannot be synced; what its reader keeps is the
// reader's to make durable before it takes more.
#pragma once

#include <cstdio>

#include "EventSink.h"
#include "EventWriter.h"

class StreamSink : public EventSink {
 public:
  // Neither is owned; both must outlive the sink.
  StreamSink(EventWriter& writer, std::FILE* out, bool durable = false);

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  // Throws std::runtime_error when the stream cannot take the output (a closed pipe, a full disk).
  void endLog(const ChangeEvent& end) override;

 private:
  void drain(bool flush);

  EventWriter& writer_;
  std::FILE* out_;
  bool sync_ = false;  // durable, and out_ is a regular file
};
