// A consumer of a log directory whose position status and prune read: a follower's checkpoint
// file, a replica's FBCDC_APPLIED row, or the position key of a follower into Redis Streams.
//
//   checkpoint:FILE                 follow --checkpoint FILE
//   replica:DB                      apply --database DB (a local path or host:path)
//   redis:HOST:PORT[/PREFIX]        follow --sink redis --redis HOST:PORT --stream-prefix PREFIX
//   redis:unix:PATH                 follow --sink redis --redis unix:PATH (the prefix fbcdc)
#pragma once

#include <string>

#include "Credentials.h"
#include "FollowPosition.h"
#include "RedisSink.h"

namespace fbcdc {

class Consumer {
 public:
  enum class Kind { kCheckpoint, kReplica, kRedis };

  // Reads one of the forms above; throws CLI::ValidationError worded for the user.
  static Consumer parse(const std::string& text);
  static Consumer checkpoint(const std::string& file);
  static Consumer replica(const std::string& database);
  // address is HOST:PORT or unix:PATH; throws CLI::ValidationError when it is not.
  static Consumer redis(const std::string& address, const std::string& prefix);

  // Who the position is read as: a replica's database attached with firebird, Redis with the
  // user, password and database of redis (its address is the consumer's own).
  void setLogins(const Credentials& firebird, const RedisSink::Options& redis);

  Kind kind() const { return kind_; }
  // The consumer as the user names it, in the form parse reads.
  const std::string& text() const { return text_; }

  // The consumer's position: empty when it has taken nothing (no checkpoint file yet, a replica
  // without FBCDC_APPLIED, no position key). Throws std::runtime_error when it cannot be read.
  FollowPosition position() const;

 private:
  // A consumer named by a file or a database: "KIND:TARGET".
  static Consumer named(Kind kind, const char* prefix, const std::string& target);

  Kind kind_ = Kind::kCheckpoint;
  std::string text_;
  std::string target_;  // the file or the database
  Credentials login_;
  RedisSink::Options redis_;
};

}  // namespace fbcdc
