// A real redis-server for a test: started on a free loopback port with nothing saved, reached
// through hiredis, and stopped when the object goes, also when an assertion ends the test early.
#pragma once

#include <hiredis/hiredis.h>
#include <sys/types.h>

#include <string>
#include <vector>

class RedisServer {
 public:
  // Starts the server with its files in directory, and more of redis-server's options when given;
  // ready() says whether it answered.
  explicit RedisServer(const std::string& directory, const std::vector<std::string>& more = {});
  ~RedisServer();
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  bool ready() const { return redis_ && !redis_->err; }
  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  // A connection for the test's own commands.
  redisContext* context() const { return redis_; }
  // The reply to a command of the test's own: a string, status or error as it is, an integer in
  // decimal, an array's elements each followed by a newline (a nil, nothing).
  std::string command(const std::vector<std::string>& args) const;
  // Stops the server now.
  void stop();
  // What the server wrote to stderr, for a failure's message.
  std::string errors() const;

 private:
  std::string directory_;
  int port_ = 0;
  pid_t pid_ = -1;
  redisContext* redis_ = nullptr;
};
