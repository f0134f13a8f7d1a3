#include "RedisSink.h"

#include <stdexcept>

namespace {

// Replies are read after this many commands, so that neither side's buffers fill up.
constexpr std::size_t kBatch = 1000;

}  // namespace

RedisSink::RedisSink(const Options& options, const EventFormat& format)
    : options_(options), writer_(format) {
  const timeval timeout{10, 0};
  redis_ = redisConnectWithTimeout(options.host.c_str(), options.port, timeout);
  if (!redis_ || redis_->err) {
    const std::string why = redis_ ? redis_->errstr : "out of memory";
    if (redis_) redisFree(redis_);
    throw std::runtime_error("cannot connect to Redis at " + options.host + ":" +
                             std::to_string(options.port) + ": " + why);
  }
}

RedisSink::~RedisSink() { redisFree(redis_); }

void RedisSink::fail(const std::string& what) {
  throw std::runtime_error("Redis: " + (file_.empty() ? what : "log " + file_ + ": " + what));
}

std::string RedisSink::loadPosition() {
  const std::string key = options_.prefix + ":checkpoint";
  auto* reply = static_cast<redisReply*>(redisCommand(redis_, "GET %b", key.data(), key.size()));
  if (!reply) fail(redis_->errstr);
  std::string text;
  if (reply->type == REDIS_REPLY_STRING) text.assign(reply->str, reply->len);
  const bool error = reply->type == REDIS_REPLY_ERROR;
  const std::string message = error ? std::string(reply->str, reply->len) : "";
  freeReplyObject(reply);
  if (error) fail(message);
  return text;
}

void RedisSink::append(const std::vector<std::string>& args) {
  std::vector<const char*> argv;
  std::vector<std::size_t> lengths;
  for (const std::string& a : args) {
    argv.push_back(a.data());
    lengths.push_back(a.size());
  }
  if (redisAppendCommandArgv(redis_, static_cast<int>(argv.size()), argv.data(), lengths.data()) !=
      REDIS_OK)
    fail(redis_->errstr);
  if (++unread_ >= kBatch) collect();
}

void RedisSink::collect() {
  for (; unread_ > 0; --unread_) {
    void* raw = nullptr;
    if (redisGetReply(redis_, &raw) != REDIS_OK) fail(redis_->errstr);
    auto* reply = static_cast<redisReply*>(raw);
    const bool ok = reply->type == REDIS_REPLY_STATUS;
    const std::string text = reply->str ? std::string(reply->str, reply->len) : "";
    freeReplyObject(reply);
    if (!ok) fail("a command was refused: " + text);
  }
}

void RedisSink::add(const std::string& stream, std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  std::vector<std::string> args = {"XADD", stream};
  if (options_.maxlen > 0) {
    args.insert(args.end(), {"MAXLEN", "~", std::to_string(options_.maxlen)});
  }
  args.insert(args.end(), {"*", "event", std::string(line)});
  append(args);
}

void RedisSink::beginLog(const LogInfo& log) {
  file_ = log.file;
  unread_ = 0;
  append({"MULTI"});
  writer_.beginLog(log);
  if (!writer_.pending().empty()) add(options_.prefix + ":transaction", writer_.pending());
  writer_.clear();
}

void RedisSink::event(const ChangeEvent& e) {
  writer_.event(e);
  const std::string stream = e.kind == ChangeEvent::Kind::kSql
                                 ? options_.prefix + ":transaction"
                                 : options_.prefix + ":" + std::string(e.relation);
  add(stream, writer_.pending());
  writer_.clear();
}

void RedisSink::endLog(const ChangeEvent& end) {
  writer_.endLog(end);
  if (!writer_.pending().empty()) add(options_.prefix + ":transaction", writer_.pending());
  writer_.clear();
  if (!position_.empty()) append({"SET", options_.prefix + ":checkpoint", position_});
  collect();
  // EXEC applies the whole log and the position together, or, after any refusal, nothing.
  auto* reply = static_cast<redisReply*>(redisCommand(redis_, "EXEC"));
  if (!reply) fail(redis_->errstr);
  std::string problem;
  if (reply->type != REDIS_REPLY_ARRAY) {
    problem = reply->str ? std::string(reply->str, reply->len) : "EXEC was refused";
  } else {
    for (std::size_t i = 0; i < reply->elements; ++i) {
      if (reply->element[i]->type == REDIS_REPLY_ERROR)
        problem = std::string(reply->element[i]->str, reply->element[i]->len);
    }
  }
  freeReplyObject(reply);
  if (!problem.empty()) fail(problem);
  file_.clear();
}
