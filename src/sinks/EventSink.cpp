#include "EventSink.h"

#include "LogDecoder.h"

LogInfo EventSink::infoOf(const LogFile& log) {
  LogInfo info;
  info.file = log.name;
  info.transaction = log.parsed.transaction;
  info.time = log.parsed.time;
  return info;
}

void EventSink::send(const LogFile& log) {
  LogDecoder decoder;
  decoder.open(log.path);
  beginLog(infoOf(log));
  for (;;) {
    const ChangeEvent& e = decoder.next();
    if (e.kind == ChangeEvent::Kind::kEnd) {
      endLog(e);
      return;
    }
    event(e);
  }
}
