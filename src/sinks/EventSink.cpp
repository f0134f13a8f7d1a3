#include "EventSink.h"

#include "LogDecoder.h"

LogInfo EventSink::infoOf(const LogFile& log) {
  LogInfo info;
  info.file = log.name;
  info.transaction = log.parsed.transaction;
  info.time = log.parsed.time;
  info.snapshot = log.name.size() > 4 && log.name.compare(log.name.size() - 4, 4, ".fbs") == 0;
  return info;
}

void EventSink::send(const LogFile& log, const LogInfo& info) {
  LogDecoder decoder;
  decoder.open(log.path);
  beginLog(info);
  for (;;) {
    const ChangeEvent& e = decoder.next();
    if (e.kind == ChangeEvent::Kind::kEnd) {
      endLog(e);
      return;
    }
    event(e);
  }
}
