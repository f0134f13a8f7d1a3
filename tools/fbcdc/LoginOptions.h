// --user, --role and --password-file: who a command attaches to its Firebird databases as. The
// password is never an argument (every user of the machine sees a command's arguments): it comes
// from the file, or from ISC_PASSWORD; the user from ISC_USER when --user is not given. With none
// of them, the embedded engine attaches as the operating system's user.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "Credentials.h"

namespace fbcdc {

class LoginOptions {
 public:
  // Adds the three options to a command, in a group of their own in its help.
  void add(CLI::App& app);
  // The credentials they and the environment give; throws std::runtime_error for a password file
  // that cannot be used.
  Credentials credentials() const;

 private:
  std::string user_;
  std::string role_;
  std::string passwordFile_;
};

}  // namespace fbcdc
