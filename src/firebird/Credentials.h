// Who attaches to a Firebird database: a user name, a role and a password, put into the
// attachment's parameter block. Empty parts are left out of it, so that an attachment with none
// goes to the embedded engine as the operating system's user, and the client library's own rules
// apply to a server.
//
// A password never comes from a command's argument, where every user of the machine sees it: it
// comes from Firebird's own ISC_PASSWORD variable or from a file that only its owner can read.
#pragma once

#include <firebird/Interface.h>

#include <string>
#include <utility>

class Credentials {
 public:
  Credentials() = default;
  Credentials(std::string user, std::string role, std::string password)
      : user_(std::move(user)), role_(std::move(role)), password_(std::move(password)) {}

  // The credentials a command uses: user, or ISC_USER when user is empty; role; the first line of
  // passwordFile (readPassword), or ISC_PASSWORD when passwordFile is empty. Throws
  // std::runtime_error for a password file that cannot be used.
  static Credentials resolve(const std::string& user, const std::string& role,
                             const std::string& passwordFile);

  // The first line of a file holding a secret, without its line end. Refuses (std::runtime_error,
  // naming the file) a file that cannot be read, is not a regular file, is empty, or that users
  // other than its owner and its group may read or write: the secret would be no secret.
  static std::string readPassword(const std::string& path);

  const std::string& user() const { return user_; }
  const std::string& role() const { return role_; }
  const std::string& password() const { return password_; }
  bool empty() const { return user_.empty() && role_.empty() && password_.empty(); }

  // Adds the parts given to a database parameter block.
  void addTo(Firebird::IXpbBuilder* dpb, Firebird::ThrowStatusWrapper* status) const;

 private:
  std::string user_;
  std::string role_;
  std::string password_;
};
