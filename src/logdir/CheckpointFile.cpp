#include "CheckpointFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& path) {
  throw std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

void syncDirectoryOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  const std::string directory = slash == std::string::npos ? "."
                                : slash == 0               ? "/"
                                                           : path.substr(0, slash);
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) fail("cannot open directory", directory);
  const int synced = ::fsync(fd);
  ::close(fd);
  if (synced != 0) fail("cannot sync directory", directory);
}

}  // namespace

std::string CheckpointFile::load() const {
  const int fd = ::open(path_.c_str(), O_RDONLY);
  if (fd < 0) {
    if (errno == ENOENT) return "";
    fail("cannot open checkpoint", path_);
  }
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      fail("cannot read checkpoint", path_);
    }
    text.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return text;
}

void CheckpointFile::store(const std::string& text) const {
  const std::string temporary = path_ + ".tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode_);
  if (fd < 0) fail("cannot create", temporary);
  // The mode is set whatever the umask, and whatever a temporary file left behind had.
  if (::fchmod(fd, mode_) != 0) {
    ::close(fd);
    fail("cannot set the mode of", temporary);
  }
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ::close(fd);
      fail("cannot write", temporary);
    }
    written += static_cast<std::size_t>(n);
  }
  if (::fsync(fd) != 0) {
    ::close(fd);
    fail("cannot sync", temporary);
  }
  if (::close(fd) != 0) fail("cannot close", temporary);
  if (::rename(temporary.c_str(), path_.c_str()) != 0)
    fail("cannot rename " + temporary + " to", path_);
  syncDirectoryOf(path_);
}
