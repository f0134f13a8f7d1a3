// A change log that does not follow the format, or could not be read: names the file, the log
// position at which reading stopped, and what was expected there.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

class LogFormatError : public std::runtime_error {
 public:
  // what() reads "<file>: log position <position>: <reason>".
  LogFormatError(const std::string& file, std::int64_t position, const std::string& reason);

  const std::string& file() const { return file_; }
  std::int64_t position() const { return position_; }
  // Block number of the position (its 32 KiB block of the file).
  std::int64_t block() const { return position_ >> 15; }
  const std::string& reason() const { return reason_; }

 private:
  std::string file_;
  std::int64_t position_;
  std::string reason_;
};
