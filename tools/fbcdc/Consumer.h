// A consumer of a log directory whose position status and prune read: a follower's checkpoint
// file, a replica's FBCDC_APPLIED row, or the position key of a follower into Redis Streams.
//
//   checkpoint:FILE                 follow --checkpoint FILE
//   replica:DB                      apply --database DB (a local path or host:path)
//   redis:HOST:PORT[/PREFIX]        follow --sink redis --redis HOST:PORT --stream-prefix PREFIX
#pragma once

#include <string>

#include "FollowPosition.h"

namespace fbcdc {

class Consumer {
 public:
  enum class Kind { kCheckpoint, kReplica, kRedis };

  // Reads one of the forms above; throws CLI::ValidationError worded for the user.
  static Consumer parse(const std::string& text);
  static Consumer checkpoint(const std::string& file);
  static Consumer replica(const std::string& database);
  // address is HOST:PORT; throws CLI::ValidationError when it is not.
  static Consumer redis(const std::string& address, const std::string& prefix);

  Kind kind() const { return kind_; }
  // The consumer as the user names it, in the form parse reads.
  const std::string& text() const { return text_; }

  // The consumer's position: empty when it has taken nothing (no checkpoint file yet, a replica
  // without FBCDC_APPLIED, no position key). Throws std::runtime_error when it cannot be read.
  FollowPosition position() const;

 private:
  Kind kind_ = Kind::kCheckpoint;
  std::string text_;
  std::string target_;  // the file, the database, or the host
  int port_ = 0;
  std::string prefix_;
};

}  // namespace fbcdc
