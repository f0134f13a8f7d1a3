#include "Credentials.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

Credentials Credentials::resolve(const std::string& user, const std::string& role,
                                 const std::string& passwordFile) {
  return Credentials(
      user.empty() ? environment("ISC_USER") : user, role,
      passwordFile.empty() ? environment("ISC_PASSWORD") : readPassword(passwordFile));
}

std::string Credentials::readPassword(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) throw std::runtime_error("password file " + path + ": " + std::strerror(errno));
  struct stat st;
  std::string text;
  std::string problem;
  if (::fstat(fd, &st) != 0) {
    problem = std::strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    problem = "not a regular file";
  } else if (st.st_mode & (S_IRWXO | S_IWGRP)) {
    // Anyone who may read the file knows the secret, and anyone who may write it chooses it.
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    problem = std::string("mode ") + mode +
              " lets other users read or change it; chmod 600 (or 640 for a group) it";
  } else {
    char buffer[4096];
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) problem = std::strerror(errno);
      if (n <= 0) break;
      text.append(buffer, static_cast<std::size_t>(n));
      if (text.find('\n') != std::string::npos) break;
    }
  }
  ::close(fd);
  if (!problem.empty()) throw std::runtime_error("password file " + path + ": " + problem);
  text = text.substr(0, text.find('\n'));
  if (!text.empty() && text.back() == '\r') text.pop_back();
  if (text.empty()) throw std::runtime_error("password file " + path + ": its first line is empty");
  return text;
}

void Credentials::addTo(Firebird::IXpbBuilder* dpb, Firebird::ThrowStatusWrapper* status) const {
  if (!user_.empty()) dpb->insertString(status, isc_dpb_user_name, user_.c_str());
  if (!password_.empty()) dpb->insertString(status, isc_dpb_password, password_.c_str());
  if (!role_.empty()) dpb->insertString(status, isc_dpb_sql_role_name, role_.c_str());
}
