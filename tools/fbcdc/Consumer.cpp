#include "Consumer.h"

#include <CLI/CLI.hpp>

#include <stdexcept>

#include "CheckpointFile.h"
#include "Database.h"
#include "RedisSink.h"
#include "ReplicaApplier.h"
#include "SnapshotPosition.h"

namespace fbcdc {

Consumer Consumer::named(Kind kind, const char* prefix, const std::string& target) {
  if (target.empty())
    throw CLI::ValidationError(std::string(prefix) + ": names no " +
                               (kind == Kind::kCheckpoint ? "file" : "database"));
  Consumer c;
  c.kind_ = kind;
  c.text_ = prefix + (":" + target);
  c.target_ = target;
  return c;
}

Consumer Consumer::checkpoint(const std::string& file) {
  return named(Kind::kCheckpoint, "checkpoint", file);
}

Consumer Consumer::replica(const std::string& database) {
  return named(Kind::kReplica, "replica", database);
}

Consumer Consumer::redis(const std::string& address, const std::string& prefix) {
  Consumer c;
  try {
    RedisSink::setAddress(c.redis_, address);
  } catch (const std::invalid_argument& e) {
    throw CLI::ValidationError("redis:" + std::string(e.what()));
  }
  if (prefix.empty()) throw CLI::ValidationError("redis:" + address + "/ names no stream prefix");
  c.kind_ = Kind::kRedis;
  c.text_ = "redis:" + address + (c.redis_.socket.empty() ? "/" + prefix : "");
  c.redis_.prefix = prefix;
  return c;
}

void Consumer::setLogins(const Credentials& firebird, const RedisSink::Options& redis) {
  login_ = firebird;
  redis_.user = redis.user;
  redis_.password = redis.password;
  redis_.database = redis.database;
}

Consumer Consumer::parse(const std::string& text) {
  const std::size_t colon = text.find(':');
  const std::string kind = colon == std::string::npos ? "" : text.substr(0, colon);
  const std::string rest = colon == std::string::npos ? "" : text.substr(colon + 1);
  if (kind == "checkpoint") return checkpoint(rest);
  if (kind == "replica") return replica(rest);
  if (kind == "redis" && rest.rfind("unix:", 0) == 0) return redis(rest, "fbcdc");
  if (kind == "redis") {
    // The prefix comes after the first slash: a host holds none, a prefix may.
    const std::size_t slash = rest.find('/');
    return redis(rest.substr(0, slash),
                 slash == std::string::npos ? "fbcdc" : rest.substr(slash + 1));
  }
  throw CLI::ValidationError(text +
                             " is not a consumer; give checkpoint:FILE, replica:DB or "
                             "redis:HOST:PORT/PREFIX");
}

FollowPosition Consumer::position() const {
  std::string stored;
  switch (kind_) {
    case Kind::kCheckpoint:
      stored = CheckpointFile(target_).load();
      break;
    case Kind::kReplica:
      try {
        Database db(target_, login_, false);
        // A replica nothing was applied to may lack the table: it has taken nothing. Reading
        // leaves it so, rather than make the table as an applier would.
        const bool applied = !db.texts(
                                    "SELECT CAST(RDB$RELATION_NAME AS VARCHAR(63) CHARACTER "
                                    "SET UTF8) FROM RDB$RELATIONS WHERE RDB$RELATION_NAME = '" +
                                    std::string(ReplicaApplier::kPositionTable) + "'")
                                  .empty();
        db.commit();
        if (!applied) return FollowPosition();
        ReplicaApplier applier(db, ReplicaApplier::Conflicts::kError);
        return applier.position();
      } catch (const Firebird::FbException& e) {
        std::string why = Database::describe(e);
        // The embedded engine lets one process at a time open a database.
        if (why.find("already opened with engine instance") != std::string::npos)
          why +=
              " (another process holds it through the embedded engine: reach the replica "
              "through its server, as host:path)";
        throw std::runtime_error(why);
      }
    case Kind::kRedis: {
      stored = RedisSink(redis_, EventFormat()).loadPosition();
      break;
    }
  }
  try {
    // A consumer that started from a snapshot keeps its log position behind the files it took.
    if (stored.compare(0, 9, "snapshot\t") == 0) return SnapshotPosition::parse(stored).logs;
    return FollowPosition::parse(stored);
  } catch (const std::runtime_error& e) {
    throw std::runtime_error(std::string("the stored position is damaged: ") + e.what());
  }
}

}  // namespace fbcdc
