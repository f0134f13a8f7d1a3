#include "RedisServer.h"

#include <signal.h>
#include <unistd.h>

#include "Processes.h"
#include "TestFiles.h"

namespace {

std::string textOf(const redisReply* r) {
  std::string text = r->type == REDIS_REPLY_INTEGER ? std::to_string(r->integer)
                     : r->str                       ? std::string(r->str, r->len)
                                                    : "";
  for (std::size_t i = 0; i < r->elements; ++i) text += textOf(r->element[i]) + "\n";
  return text;
}

}  // namespace

RedisServer::RedisServer(const std::string& directory, const std::vector<std::string>& more)
    : directory_(directory) {
  port_ = loopbackPort();
  if (port_ == 0) return;
  std::vector<std::string> args = {
      "redis-server", "--port", std::to_string(port_), "--bind", "127.0.0.1",
      "--save",       "",       "--appendonly",        "no",     "--dir",
      directory_};
  args.insert(args.end(), more.begin(), more.end());
  pid_ = spawn(args, directory_ + "/redis.out", directory_ + "/redis.err");
  for (int i = 0; i < 100 && pid_ > 0 && !ready(); ++i) {
    if (redis_) redisFree(redis_);
    ::usleep(50000);
    redis_ = redisConnect("127.0.0.1", port_);
  }
}

RedisServer::~RedisServer() {
  if (redis_) redisFree(redis_);
  stop();
}

void RedisServer::stop() {
  if (pid_ > 0) ::stop(pid_, SIGTERM);
  pid_ = -1;
}

std::string RedisServer::command(const std::vector<std::string>& args) const {
  std::vector<const char*> argv;
  std::vector<std::size_t> lengths;
  for (const std::string& a : args) {
    argv.push_back(a.data());
    lengths.push_back(a.size());
  }
  auto* r = static_cast<redisReply*>(
      redisCommandArgv(redis_, static_cast<int>(argv.size()), argv.data(), lengths.data()));
  if (!r) return "(no reply)";
  const std::string text = textOf(r);
  freeReplyObject(r);
  return text;
}

std::string RedisServer::errors() const { return readText(directory_ + "/redis.err"); }
