// Small helpers shared by the tests: temporary directories, whole-file reads, the block container
// built independently from a byte stream, and real Firebird status and configuration objects.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <firebird/Interface.h>

using Bytes = std::vector<std::uint8_t>;

// A fresh directory under $TMPDIR, removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The path, ending in "/".
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + name; }
  // Names of the entries, sorted.
  std::vector<std::string> list() const;

 private:
  std::string path_;
};

// Names of the entries of a directory, sorted.
std::vector<std::string> listDirectory(const std::string& path);
bool fileExists(const std::string& path);
Bytes readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
Bytes bytesOf(const std::string& text);
std::string hex(const Bytes& bytes);

// The block container for a byte stream: 32764-byte pieces, each followed by its CRC-32C computed
// bit by bit here, so that the writer's own CRC code is not its own judge.
Bytes containerOf(const Bytes& stream);
std::uint32_t slowCrc32c(const std::uint8_t* data, std::size_t length);

// A real status object of the Firebird client library.
class FbStatus {
 public:
  FbStatus();
  ~FbStatus();
  FbStatus(const FbStatus&) = delete;
  FbStatus& operator=(const FbStatus&) = delete;

  Firebird::IStatus* get() const { return status_; }
  operator Firebird::IStatus*() const { return status_; }
  // The error vector up to its end marker, strings as their texts.
  std::vector<std::string> errors() const;
  // The text of the first string argument, or "" when there is none.
  std::string text() const;
  bool hasErrors() const { return status_->getState() & Firebird::IStatus::STATE_ERRORS; }

 private:
  Firebird::IStatus* status_;
};

// Reads a configuration file with Firebird's own parser. The caller releases the result.
Firebird::IConfig* loadConfig(const std::string& path);
