#include "LoginOptions.h"

namespace fbcdc {

void LoginOptions::add(CLI::App& app) {
  constexpr const char* kGroup = "Firebird login (a server's database)";
  app.add_option("--user", user_, "the user (default: ISC_USER)")->type_name("NAME")->group(kGroup);
  app.add_option("--role", role_, "the SQL role to take")->type_name("ROLE")->group(kGroup);
  app.add_option("--password-file", passwordFile_, "its first line (default: ISC_PASSWORD)")
      ->type_name("FILE")
      ->group(kGroup);
}

Credentials LoginOptions::credentials() const {
  return Credentials::resolve(user_, role_, passwordFile_);
}

}  // namespace fbcdc
