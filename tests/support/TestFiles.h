// Small helpers shared by the tests: temporary directories, whole files, the block container built
// independently of the writer, exception texts, and real Firebird status and configuration objects.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <firebird/Interface.h>

using Bytes = std::vector<std::uint8_t>;
using Strings = std::vector<std::string>;

// A fresh directory under $TMPDIR; its path ends in "/". Removed with its contents at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + name; }

 private:
  std::string path_;
};

// Names of the entries of a directory, sorted.
Strings listDirectory(const std::string& path);
bool fileExists(const std::string& path);
Bytes readFile(const std::string& path);
std::string readText(const std::string& path);
void writeFile(const std::string& path, const std::string& text);
void writeFile(const std::string& path, const Bytes& bytes);
// Returns once a file changed in directory now gets a later change time than every file changed
// there before the call. A sleep of a fixed length is not enough: some file systems stamp files
// from a clock that stands still for many milliseconds.
void awaitLaterFileTime(const std::string& directory);
// Holds text against the golden file at path under tests/; FBCDC_UPDATE_GOLDEN=1 rewrites the file
// instead, to be reviewed line by line before a commit.
void expectGolden(const std::string& path, const std::string& text);
Bytes bytesOf(const std::string& text);
std::string hex(const Bytes& bytes);
// n bytes of a fixed pseudo-random sequence.
Bytes randomBytes(std::size_t n, unsigned seed);

// The block container for a byte stream: 32764-byte pieces, each followed by its CRC-32C computed
// bit by bit here, so that the writer's own CRC code is not its own judge.
Bytes containerOf(const Bytes& stream);
std::uint32_t slowCrc32c(const std::uint8_t* data, std::size_t length);
// The byte stream of a container: its blocks without their trailers.
Bytes streamOf(const Bytes& file);

// The error vector of a failure that the plugin reports with text: its generic code and the text.
Strings cdcError(const std::string& text);

// "<first>: <second>" of the ReplException that fn throws, with "auto " in front when it owns its
// text (a ReplAutoException); "" when fn throws none.
std::string failureOf(const std::function<void()>& fn);

// A real status object of the Firebird client library.
class FbStatus {
 public:
  FbStatus() : status_(Firebird::fb_get_master_interface()->getStatus()) {}
  ~FbStatus() { status_->dispose(); }
  FbStatus(const FbStatus&) = delete;
  FbStatus& operator=(const FbStatus&) = delete;
  Firebird::IStatus* get() const { return status_; }
  operator Firebird::IStatus*() const { return status_; }
  // The error vector up to its end marker, strings as their texts.
  Strings errors() const;
  // The text of the first string argument, or "" when there is none.
  std::string text() const;
  bool hasErrors() const { return status_->getState() & Firebird::IStatus::STATE_ERRORS; }

 private:
  Firebird::IStatus* status_;
};

// Reads a configuration file with Firebird's own parser. The caller releases the result.
Firebird::IConfig* loadConfig(const std::string& path);
