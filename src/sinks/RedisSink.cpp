#include "RedisSink.h"

#include <stdexcept>

namespace {

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
    if (key == positionKey(options_.prefix)) stored_ = text;
    return text;
  }
  return "";
}

void RedisSink::add(const std::string& stream) {
  std::string_view line = writer_.pending();
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  auto [at, added] = keyNumbers_.emplace(stream, keys_.size());
  if (added) keys_.push_back(stream);
  if (entryCount_ == entries_.size()) {
    entries_.emplace_back();
    entryKeys_.emplace_back();
  }
  entryKeys_[entryCount_] = at->second;
  entries_[entryCount_++].assign(line);
  writer_.clear();
}

void RedisSink::beginLog(const LogInfo& log) {
  file_ = log.file;
  keys_.assign(1, positionKey(options_.prefix));
  keyNumbers_.clear();
  entryCount_ = 0;
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
  beginTransaction();
  sendLog();
  file_.clear();
}

void RedisSink::append(std::initializer_list<std::string_view> args) {
  argv_.clear();
  lengths_.clear();
  for (std::string_view a : args) {
    argv_.push_back(a.data());
    lengths_.push_back(a.size());
  }
  if (redisAppendCommandArgv(redis_, static_cast<int>(argv_.size()), argv_.data(),
                             lengths_.data()) != REDIS_OK)
    fail(redis_->errstr);
}

redisReply* RedisSink::nextReply() {
  void* reply = nullptr;
  if (redisGetReply(redis_, &reply) != REDIS_OK || !reply) fail(redis_->errstr);
  return static_cast<redisReply*>(reply);
}

void RedisSink::beginTransaction() {
  // One round trip: the position watched, every key's type, the position itself, then MULTI.
  const std::string& position = keys_[0];
  append({"WATCH", position});
  for (const std::string& key : keys_) append({"TYPE", key});
  append({"GET", position});
  append({"MULTI"});
  std::string problem;
  auto note = [&](const std::string& what) {
    if (problem.empty()) problem = what;
  };
  redisReply* reply = nextReply();
  if (reply->type == REDIS_REPLY_ERROR) note(textOf(reply));
  freeReplyObject(reply);
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    reply = nextReply();
    const std::string type = textOf(reply);
    const bool refused = reply->type == REDIS_REPLY_ERROR;
    freeReplyObject(reply);
    const char* wanted = i == 0 ? "string" : "stream";
    if (refused)
      note(type);
    else if (type != "none" && type != wanted)
      note("WRONGTYPE " + keys_[i] + " is a " + type + ", not a " + wanted);
  }
  reply = nextReply();
  const bool stored = reply->type == REDIS_REPLY_STRING;
  const std::string text = textOf(reply);
  freeReplyObject(reply);
  // Another follower on the same prefix would send every log a second time.
  if (stored && text != stored_)
    note(position + " holds a position that this follower did not store: another follower may " +
         "be writing under the prefix " + options_.prefix);
  reply = nextReply();
  const bool multi = reply->type == REDIS_REPLY_STATUS;
  const std::string refused = textOf(reply);
  freeReplyObject(reply);
  if (!multi) note("MULTI refused: " + refused);
  if (problem.empty()) return;
  redisReply* ended = command({multi ? "DISCARD" : "UNWATCH"});
  freeReplyObject(ended);
  fail(problem);
}

void RedisSink::sendLog() {
  const std::string cap = std::to_string(options_.maxlen);
  for (std::size_t i = 0; i < entryCount_; ++i) {
    const std::string& key = keys_[entryKeys_[i]];
    if (options_.maxlen > 0)
      append({"XADD", key, "MAXLEN", "~", cap, "*", "event", entries_[i]});
    else
      append({"XADD", key, "*", "event", entries_[i]});
  }
  if (!position_.empty()) append({"SET", keys_[0], position_});
  append({"EXEC"});
  // QUEUED (or the reason it was refused) for each command, then EXEC's reply: the results,
  // nothing when the watched position changed, or an error that discarded it all.
  std::string refused;
  const std::size_t queued = entryCount_ + (position_.empty() ? 0 : 1);
  for (std::size_t i = 0; i < queued; ++i) {
    redisReply* reply = nextReply();
    if (reply->type == REDIS_REPLY_ERROR && refused.empty()) refused = textOf(reply);
    freeReplyObject(reply);
  }
  redisReply* reply = nextReply();
  const int type = reply->type;
  const std::string text = textOf(reply);
  std::string failed;
  if (type == REDIS_REPLY_ARRAY)
    for (std::size_t i = 0; i < reply->elements && failed.empty(); ++i)
      if (reply->element[i]->type == REDIS_REPLY_ERROR) failed = textOf(reply->element[i]);
  freeReplyObject(reply);
  if (type == REDIS_REPLY_NIL)
    fail("another client changed " + keys_[0] + " while the log was sent; nothing of it was " +
         "written (is another follower writing under the prefix " + options_.prefix + "?)");
  if (type == REDIS_REPLY_ERROR) fail(refused.empty() ? text : refused);
  if (type != REDIS_REPLY_ARRAY) fail("EXEC gave no results");
  if (failed.empty()) {
    if (!position_.empty()) stored_ = position_;
    return;
  }
  // A command failed inside EXEC (a stream whose last possible ID is taken, a key replaced by
  // another type after the check): Redis ran the others, the position's SET among them. The
  // position goes back before the log, so that a restarted follower sends the whole log again
  // rather than lose what did not arrive.
  redisReply* restored =
      stored_.empty() ? command({"DEL", keys_[0]}) : command({"SET", keys_[0], stored_});
  const bool back = restored->type != REDIS_REPLY_ERROR;
  freeReplyObject(restored);
  fail("a command failed inside the log's transaction: " + failed +
       (back ? "; the position was put back before the log, whose entries will be sent again"
             : "; the position could not be put back before the log"));
}
