// A change log that does not follow the format, or could not be read: names the file, the log
// position at which reading stopped, and what was expected there.
//
// This is also where damage gets its words, once for every command that reports it: dump (and
// follow, apply) print what(), verify prints the same block, position and reason after its verdict,
// and the block checks of verify use the reasons below, so that the same damage reads the same:
//
//   fbcdc dump: logs/x.fbl: block 2, log position 65536: CRC mismatch: ...
//   logs/x.fbl: damaged: block 2, log position 65536: CRC mismatch: ...
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

class LogFormatError : public std::runtime_error {
 public:
  // what() reads "<file>: block <block>, log position <position>: <reason>". A reason in the block
  // reader's own words is worded as below (see reworded).
  LogFormatError(const std::string& file, std::int64_t position, const std::string& reason);

  const std::string& file() const { return file_; }
  std::int64_t position() const { return position_; }
  // Block number of the position (its 32 KiB block of the file).
  std::int64_t block() const { return position_ >> 15; }
  const std::string& reason() const { return reason_; }

  // The reasons for a block that cannot be taken as it is on disk.
  static const char kCrcMismatch[];                // its data do not give the CRC in its trailer
  static const char kBlockTooShort[];              // shorter than a data byte and its CRC
  static std::string cannotOpen(const char* why);  // why: the C library's text for errno
  static std::string readFailed(const char* why);

  // The block reader raises its failures as a location tag and a text of its own ("TFDB::RB: CRC
  // error, file ... is corrupted"); this gives the reason above for each it words otherwise, and
  // any other reason unchanged.
  static std::string reworded(const std::string& reason);

 private:
  std::string file_;
  std::int64_t position_;
  std::string reason_;
};
