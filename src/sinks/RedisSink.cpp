#include "RedisSink.h"

#include <stdexcept>

namespace {

// KEYS[1] is the position, KEYS[2..] the streams; ARGV[1] the cap (0: none), ARGV[2] the position
// (empty: none), then pairs of a stream's number in KEYS and an entry.
const char kAppendLog[] = R"(
for i = 2, #KEYS do
  local t = redis.call('TYPE', KEYS[i]).ok
  if t ~= 'none' and t ~= 'stream' then
    return redis.error_reply('WRONGTYPE ' .. KEYS[i] .. ' is a ' .. t .. ', not a stream')
  end
end
local t = redis.call('TYPE', KEYS[1]).ok
if t ~= 'none' and t ~= 'string' then
  return redis.error_reply('WRONGTYPE ' .. KEYS[1] .. ' is a ' .. t .. ', not a string')
end
for i = 3, #ARGV, 2 do
  local key = KEYS[tonumber(ARGV[i])]
  if ARGV[1] ~= '0' then
    redis.call('XADD', key, 'MAXLEN', '~', ARGV[1], '*', 'event', ARGV[i + 1])
  else
    redis.call('XADD', key, '*', 'event', ARGV[i + 1])
  end
end
if ARGV[2] ~= '' then redis.call('SET', KEYS[1], ARGV[2]) end
return redis.status_reply('OK')
)";

std::string textOf(const redisReply* reply) {
  return reply->str ? std::string(reply->str, reply->len) : "";
}

}  // namespace

void RedisSink::setAddress(Options& options, const std::string& address) {
  if (address.rfind("unix:", 0) == 0) {
    if (address.size() == 5) throw std::invalid_argument(address + " names no socket");
    options.socket = address.substr(5);
    return;
  }
  const std::size_t colon = address.rfind(':');
  const std::string port = colon == std::string::npos ? "" : address.substr(colon + 1);
  const bool digits = !port.empty() && port.size() <= 5 &&
                      port.find_first_not_of("0123456789") == std::string::npos;
  if (colon == std::string::npos || colon == 0 || !digits || std::stoi(port) < 1 ||
      std::stoi(port) > 65535)
    throw std::invalid_argument(address + " has no HOST:PORT with a port from 1 to 65535");
  options.socket.clear();
  options.host = address.substr(0, colon);
  options.port = std::stoi(port);
}

std::string RedisSink::addressOf(const Options& options) {
  return options.socket.empty() ? options.host + ":" + std::to_string(options.port)
                                : "unix:" + options.socket;
}

RedisSink::RedisSink(const Options& options, const EventFormat& format)
    : options_(options), writer_(format) {
  const timeval timeout{10, 0};
  redis_ = options.socket.empty()
               ? redisConnectWithTimeout(options.host.c_str(), options.port, timeout)
               : redisConnectUnixWithTimeout(options.socket.c_str(), timeout);
  const std::string where = "Redis at " + addressOf(options);
  if (!redis_ || redis_->err) {
    const std::string why = redis_ ? redis_->errstr : "out of memory";
    if (redis_) redisFree(redis_);
    throw std::runtime_error("cannot connect to " + where + ": " + why);
  }
  // Nothing else is sent before the server has taken the login and the database.
  std::vector<std::vector<std::string>> setup;
  if (!options.password.empty()) {
    if (options.user.empty())
      setup.push_back({"AUTH", options.password});
    else
      setup.push_back({"AUTH", options.user, options.password});
  }
  if (options.database != 0) setup.push_back({"SELECT", std::to_string(options.database)});
  for (const std::vector<std::string>& args : setup) {
    std::string why;
    try {
      redisReply* reply = command(args);
      if (reply->type == REDIS_REPLY_ERROR) why = textOf(reply);
      freeReplyObject(reply);
    } catch (const std::runtime_error& e) {
      why = e.what();
    }
    if (!why.empty()) {
      redisFree(redis_);
      redis_ = nullptr;
      throw std::runtime_error(where + " refused " + args[0] +
                               (args[0] == "SELECT" ? " " + args[1] : "") + ": " + why);
    }
  }
}

RedisSink::~RedisSink() {
  if (redis_) redisFree(redis_);
}

void RedisSink::fail(const std::string& what) {
  throw std::runtime_error("Redis: " + (file_.empty() ? what : "log " + file_ + ": " + what));
}

redisReply* RedisSink::command(const std::vector<std::string>& args) {
  std::vector<const char*> argv;
  std::vector<std::size_t> lengths;
  argv.reserve(args.size());
  lengths.reserve(args.size());
  for (const std::string& a : args) {
    argv.push_back(a.data());
    lengths.push_back(a.size());
  }
  auto* reply = static_cast<redisReply*>(
      redisCommandArgv(redis_, static_cast<int>(argv.size()), argv.data(), lengths.data()));
  if (!reply) fail(redis_->errstr);
  return reply;
}

std::string RedisSink::loadPosition() {
  // A position stored under "<prefix>:checkpoint" by an earlier version is taken as long as the
  // new key holds none; a stream of a table CHECKPOINT under that name is not a position.
  for (const std::string& key : {positionKey(options_.prefix), options_.prefix + ":checkpoint"}) {
    redisReply* type = command({"TYPE", key});
    const std::string kind = textOf(type);
    const bool refused = type->type == REDIS_REPLY_ERROR;
    freeReplyObject(type);
    // A server still loading, or one that wants a password, must not pass for one without a
    // position: the follower would send every log again.
    if (refused) fail(kind);
    if (kind != "string") continue;
    redisReply* reply = command({"GET", key});
    const std::string text = textOf(reply);
    const bool error = reply->type == REDIS_REPLY_ERROR;
    freeReplyObject(reply);
    if (error) fail(text);
    return text;
  }
  return "";
}

void RedisSink::add(const std::string& stream) {
  std::string_view line = writer_.pending();
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  auto [at, added] = keyNumbers_.emplace(stream, std::to_string(keys_.size() + 1));
  if (added) keys_.push_back(stream);
  entries_.push_back(at->second);
  entries_.emplace_back(line);
  writer_.clear();
}

void RedisSink::beginLog(const LogInfo& log) {
  file_ = log.file;
  keys_.assign(1, positionKey(options_.prefix));
  keyNumbers_.clear();
  entries_.clear();
  writer_.beginLog(log);
  if (!writer_.pending().empty()) add(options_.prefix + ":transaction");
}

void RedisSink::event(const ChangeEvent& e) {
  writer_.event(e);
  add(e.kind == ChangeEvent::Kind::kSql ? options_.prefix + ":transaction"
                                        : options_.prefix + ":" + std::string(e.relation));
}

void RedisSink::endLog(const ChangeEvent& end) {
  writer_.endLog(end);
  if (!writer_.pending().empty()) add(options_.prefix + ":transaction");
  if (scriptSha_.empty()) {
    redisReply* reply = command({"SCRIPT", "LOAD", kAppendLog});
    const bool ok = reply->type == REDIS_REPLY_STRING;
    const std::string text = textOf(reply);
    freeReplyObject(reply);
    if (!ok) fail("cannot load the script that appends a log: " + text);
    scriptSha_ = text;
  }
  std::vector<std::string> args = {"EVALSHA", scriptSha_, std::to_string(keys_.size())};
  args.insert(args.end(), keys_.begin(), keys_.end());
  args.push_back(std::to_string(options_.maxlen > 0 ? options_.maxlen : 0));
  args.push_back(position_);
  args.insert(args.end(), entries_.begin(), entries_.end());
  redisReply* reply = command(args);
  if (reply->type == REDIS_REPLY_ERROR && textOf(reply).rfind("NOSCRIPT", 0) == 0) {
    // The server lost its scripts (a restart, SCRIPT FLUSH): the script itself goes along.
    freeReplyObject(reply);
    args[0] = "EVAL";
    args[1] = kAppendLog;
    reply = command(args);
  }
  const bool ok = reply->type == REDIS_REPLY_STATUS;
  const std::string text = textOf(reply);
  freeReplyObject(reply);
  if (!ok) fail(text.empty() ? "the log was refused" : text);
  file_.clear();
}
