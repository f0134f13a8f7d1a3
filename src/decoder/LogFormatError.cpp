#include "LogFormatError.h"

#include <cstring>

namespace {

bool startsWith(const std::string& s, const char* prefix) {
  return s.compare(0, std::strlen(prefix), prefix) == 0;
}

bool endsWith(const std::string& s, const char* suffix) {
  const std::size_t n = std::strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

}  // namespace

const char LogFormatError::kCrcMismatch[] =
    "CRC mismatch: the block's data do not give the CRC-32C in its trailer";
const char LogFormatError::kBlockTooShort[] =
    "the block is too short to hold a data byte and its CRC";

std::string LogFormatError::cannotOpen(const char* why) {
  return std::string("cannot open: ") + why;
}

std::string LogFormatError::readFailed(const char* why) {
  return std::string("read failed: ") + why;
}

std::string LogFormatError::reworded(const std::string& reason) {
  // The tags of a block load; the decoder passes the text with its tag, or without it while the
  // header is read.
  static const char kLoad[] = "TFDB::RB: ";
  static const char kRead[] = "TRF::RB: ";
  std::string text = reason;
  bool read = false;
  if (startsWith(text, kLoad)) {
    text.erase(0, sizeof kLoad - 1);
  } else if (startsWith(text, kRead)) {
    text.erase(0, sizeof kRead - 1);
    read = true;
  }
  if (startsWith(text, "CRC error, file ") && endsWith(text, " is corrupted")) return kCrcMismatch;
  if (text == "Too small block") return kBlockTooShort;
  if (startsWith(text, "Cannot open ")) {
    // "Cannot open <path>: <why>": a path may hold ": ", the C library's text does not.
    const std::size_t at = text.rfind(": ");
    if (at != std::string::npos) return cannotOpen(text.c_str() + at + 2);
  }
  if (read && text != "File is not opened" && text != "Unexpected EOF")
    return readFailed(text.c_str());
  return reason;
}

LogFormatError::LogFormatError(const std::string& file, std::int64_t position,
                               const std::string& reason)
    : std::runtime_error(file + ": block " + std::to_string(position >> 15) + ", log position " +
                         std::to_string(position) + ": " + reworded(reason)),
      file_(file),
      position_(position),
      reason_(reworded(reason)) {}
