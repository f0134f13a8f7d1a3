#include "RedisLoginOptions.h"

#include <climits>
#include <cstdlib>

#include "Command.h"
#include "Credentials.h"

namespace fbcdc {

void RedisLoginOptions::add(CLI::App& app, const std::string& group) {
  app.add_option("--redis-user", user_, "an ACL user (default: the default user)")
      ->type_name("NAME")
      ->group(group);
  app.add_option("--redis-password-file", passwordFile_,
                 "its first line (default: FBCDC_REDIS_PASSWORD)")
      ->type_name("FILE")
      ->group(group);
  wholeNumber(app.add_option("--redis-db", database_, "the database number (default 0)"), 0,
              INT_MAX)
      ->group(group);
}

void RedisLoginOptions::applyTo(RedisSink::Options& options) const {
  options.user = user_;
  options.database = database_;
  if (!passwordFile_.empty()) {
    options.password = Credentials::readPassword(passwordFile_);
  } else if (const char* password = std::getenv("FBCDC_REDIS_PASSWORD")) {
    options.password = password;
  }
}

}  // namespace fbcdc
