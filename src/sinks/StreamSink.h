// A sink that writes events as lines to a stdio stream, in the format of its EventWriter. Output
// is handed to the stream in pieces of 64 KiB and flushed at the end of every log.
#pragma once

#include <cstdio>

#include "EventSink.h"
#include "EventWriter.h"

class StreamSink : public EventSink {
 public:
  // Neither is owned; both must outlive the sink.
  StreamSink(EventWriter& writer, std::FILE* out) : writer_(writer), out_(out) {}

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  // Throws std::runtime_error when the stream cannot take the output (a closed pipe, a full disk).
  void endLog(const ChangeEvent& end) override;

 private:
  void drain(bool flush);

  EventWriter& writer_;
  std::FILE* out_;
};
