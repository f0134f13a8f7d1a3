// Publishes events to Redis Streams through hiredis: each event is one entry, "XADD
// <prefix>:<TABLE> * event <json>", statements and transaction markers go to
// "<prefix>:transaction", and maxlen (when set) caps each stream approximately.
//
// A log's entries and the follower's position after the log ("<prefix>:checkpoint") are written
// in one MULTI/EXEC, so a log is in Redis whole or not at all, and a restarted follower resumes
// exactly after the last log whose entries all arrived: every event once.
#pragma once

#include <hiredis/hiredis.h>

#include <string>
#include <vector>

#include "EventSink.h"
#include "JsonEventWriter.h"

class RedisSink : public EventSink {
 public:
  struct Options {
    std::string host = "127.0.0.1";
    int port = 6379;
    std::string prefix = "fbcdc";
    long long maxlen = 0;  // 0: streams are not capped
  };

  // Connects; throws std::runtime_error when Redis cannot be reached.
  RedisSink(const Options& options, const EventFormat& format);
  ~RedisSink() override;

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  void endLog(const ChangeEvent& end) override;

  bool keepsPosition() const override { return true; }
  std::string loadPosition() override;
  void setPositionAfterLog(const std::string& serialized) override { position_ = serialized; }

 private:
  void append(const std::vector<std::string>& args);
  void add(const std::string& stream, std::string_view line);
  // Reads the replies of the commands sent so far; each must be "QUEUED" (or "OK" for MULTI).
  void collect();
  [[noreturn]] void fail(const std::string& what);

  Options options_;
  JsonEventWriter writer_;
  redisContext* redis_ = nullptr;
  std::string position_;
  std::string file_;
  std::size_t unread_ = 0;  // replies not yet read
};
