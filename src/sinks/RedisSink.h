// Publishes events to Redis Streams through hiredis: each event is one entry, "XADD
// <prefix>:<TABLE> * event <json>", statements and transaction markers go to
// "<prefix>:transaction", and maxlen (when set) caps each stream approximately.
//
// A log's entries and the follower's position after the log go in one MULTI/EXEC, the position
// last. Redis does not undo a command that fails inside EXEC, so the keys' types are checked
// first (every stream a stream or not there yet, the position a string), with the position
// watched and compared with the one this follower stored: a position another client changes
// makes EXEC do nothing, and the follower stops, since a second follower on the prefix would send
// every log twice. A command refused while queued (memory, a denied command) discards the whole
// transaction; a follower killed before EXEC leaves nothing. So a log is in Redis whole or not at
// all, and a restarted follower resumes exactly after the last log whose entries all arrived:
// every event once. Should a command still fail inside EXEC (a stream whose last possible ID is
// taken, a key replaced by another type after the check), the position is put back before the
// log and the follower stops: the log's entries that arrived are sent again, none is lost.
//
// The position lies under "<prefix>.checkpoint", which no stream key "<prefix>:<TABLE>" can be.
//
// The server is reached over TCP or a Unix socket, then AUTH (a password, or an ACL user and its
// password) and SELECT (a database other than 0) come before anything else. hiredis 0.14 has no
// TLS: a TLS server is reached through a local tunnel (stunnel), see docs/security.md.
#pragma once

#include <hiredis/hiredis.h>

#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
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
  // Queues a command on the connection without waiting for its reply.
  void append(std::initializer_list<std::string_view> args);
  // The next reply of the queued commands, which the caller frees.
  redisReply* nextReply();
  // Watches the position, checks the keys' types and the stored position, and opens MULTI;
  // fails, with nothing left open, on a key of another type or a position not this follower's.
  void beginTransaction();
  // Queues the log's entries and the position and runs EXEC; fails when it did not run whole.
  void sendLog();
  [[noreturn]] void fail(const std::string& what);

  Options options_;
  JsonEventWriter writer_;
  redisContext* redis_ = nullptr;
  std::string position_;
  // What this follower last stored or loaded under the position key ("" for none).
  std::string stored_;
  std::string file_;
  // The log's keys (the position first, then its streams), and its entries: each one's key and
  // JSON line. The lines' strings are kept from log to log so that their memory is reused.
  std::vector<std::string> keys_;
  std::map<std::string, std::size_t> keyNumbers_;
  std::vector<std::size_t> entryKeys_;
  std::vector<std::string> entries_;
  std::size_t entryCount_ = 0;
  std::vector<const char*> argv_;
  std::vector<std::size_t> lengths_;
};
