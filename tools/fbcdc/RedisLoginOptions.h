// --redis-user, --redis-password-file and --redis-db: how a command logs in to Redis. The password
// is never an argument (every user of the machine sees a command's arguments): it comes from the
// file, or from FBCDC_REDIS_PASSWORD; with neither, no AUTH is sent.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "RedisSink.h"

namespace fbcdc {

class RedisLoginOptions {
 public:
  // Adds the three options to a command, in group of its help.
  void add(CLI::App& app, const std::string& group);
  // Sets the user, password and database of options; throws std::runtime_error for a password
  // file that cannot be used.
  void applyTo(RedisSink::Options& options) const;

 private:
  std::string user_;
  std::string passwordFile_;
  int database_ = 0;
};

}  // namespace fbcdc
