// Publishes events to Redis Streams through hiredis: each event is one entry, "XADD
// <prefix>:<TABLE> * event <json>", statements and transaction markers go to
// "<prefix>:transaction", and maxlen (when set) caps each stream approximately.
//
// A log's entries and the follower's position after the log are written by one script, which
// first checks that every stream it writes is a stream (or not there yet), then adds the entries
// and sets the position last. Redis runs a script alone and does not undo what a failed command
// before it did, so the check comes first: a log is in Redis whole or not at all, and a restarted
// follower resumes exactly after the last log whose entries all arrived: every event once.
//
// The position lies under "<prefix>.checkpoint", which no stream key "<prefix>:<TABLE>" can be.
//
// The server is reached over TCP or a Unix socket, then AUTH (a password, or an ACL user and its
// password) and SELECT (a database other than 0) come before anything else. hiredis 0.14 has no
// TLS: a TLS server is reached through a local tunnel (stunnel), see docs/security.md.
#pragma once

#include <hiredis/hiredis.h>

#include <map>
#include <string>
#include <vector>

#include "EventSink.h"
#include "JsonEventWriter.h"

class RedisSink : public EventSink {
 public:
  struct Options {
    std::string host = "127.0.0.1";
    int port = 6379;
    std::string socket;    // a Unix socket's path; when set, host and port are not used
    std::string user;      // an ACL user; empty: the default user
    std::string password;  // empty: no AUTH
    int database = 0;      // the database SELECT takes
    std::string prefix = "fbcdc";
    long long maxlen = 0;  // 0: streams are not capped
  };

  // Sets host and port from "HOST:PORT", or socket from "unix:PATH"; throws std::invalid_argument,
  // worded for the user, for anything else.
  static void setAddress(Options& options, const std::string& address);
  // The server as setAddress reads it.
  static std::string addressOf(const Options& options);

  // Connects, authenticates and selects the database; throws std::runtime_error, naming the
  // server and its reason, when any of it fails.
  RedisSink(const Options& options, const EventFormat& format);
  ~RedisSink() override;

  void beginLog(const LogInfo& log) override;
  void event(const ChangeEvent& event) override;
  void endLog(const ChangeEvent& end) override;

  bool keepsPosition() const override { return true; }
  std::string loadPosition() override;
  void setPositionAfterLog(const std::string& serialized) override { position_ = serialized; }

  // The key of the position for a stream prefix.
  static std::string positionKey(const std::string& prefix) { return prefix + ".checkpoint"; }

 private:
  // Queues the pending line as an entry of stream.
  void add(const std::string& stream);
  // Runs a command given as its arguments; returns the reply, which the caller frees.
  redisReply* command(const std::vector<std::string>& args);
  [[noreturn]] void fail(const std::string& what);

  Options options_;
  JsonEventWriter writer_;
  redisContext* redis_ = nullptr;
  std::string position_;
  std::string file_;
  std::string scriptSha_;
  // The log's streams as the script's keys (the position first), and its entries as pairs of a
  // key's number and the JSON line.
  std::vector<std::string> keys_;
  std::map<std::string, std::string> keyNumbers_;
  std::vector<std::string> entries_;
};
