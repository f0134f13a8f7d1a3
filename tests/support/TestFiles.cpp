#include "TestFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

#include "ReplAutoException.h"

namespace fs = std::filesystem;

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/fbcdc-test-XXXXXX";
  if (!mkdtemp(&pattern[0])) throw std::runtime_error("mkdtemp failed");
  path_ = pattern + "/";
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

Strings listDirectory(const std::string& path) {
  Strings names;
  std::error_code missing;
  for (const fs::directory_entry& e : fs::directory_iterator(path, missing))
    names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

bool fileExists(const std::string& path) { return fs::exists(path); }

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string readText(const std::string& path) {
  const Bytes b = readFile(path);
  return std::string(b.begin(), b.end());
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

void writeFile(const std::string& path, const Bytes& bytes) {
  writeFile(path, std::string(bytes.begin(), bytes.end()));
}

void awaitLaterFileTime(const std::string& directory) {
  const std::string probe = directory + "/.clock-probe";
  const auto changed = [&probe] {
    writeFile(probe, "x");
    struct stat st;
    if (::stat(probe.c_str(), &st) != 0) throw std::runtime_error("cannot examine " + probe);
    return std::make_pair(st.st_ctim.tv_sec, st.st_ctim.tv_nsec);
  };
  const auto before = changed();
  for (int i = 0; changed() <= before; ++i) {
    if (i == 5000) throw std::runtime_error("the file system's clock stands still in " + directory);
    ::usleep(1000);
  }
  std::remove(probe.c_str());
}

void expectGolden(const std::string& path, const std::string& text) {
  const std::string golden = std::string(FBCDC_TEST_SOURCE_DIR) + "/" + path;
  EXPECT_EQ(readText(golden), text) << path;
  if (std::getenv("FBCDC_UPDATE_GOLDEN")) writeFile(golden, text);
}

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes randomBytes(std::size_t n, unsigned seed) {
  std::mt19937 random(seed);
  Bytes b(n);
  for (auto& x : b) x = static_cast<std::uint8_t>(random());
  return b;
}

std::string hex(const Bytes& bytes) {
  std::string out;
  for (const std::uint8_t b : bytes)
    out += {' ', "0123456789ABCDEF"[b >> 4], "0123456789ABCDEF"[b & 15]};
  return out.empty() ? out : out.substr(1);
}

std::uint32_t slowCrc32c(const std::uint8_t* data, std::size_t length) {
  std::uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = 0; i < length; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0x82F63B78 & (0u - (crc & 1)));
  }
  return ~crc;
}

Bytes containerOf(const Bytes& stream) {
  Bytes file;
  for (std::size_t at = 0; at < stream.size(); at += 32764) {
    const std::size_t n = std::min<std::size_t>(32764, stream.size() - at);
    file.insert(file.end(), stream.begin() + at, stream.begin() + at + n);
    const std::uint32_t crc = slowCrc32c(stream.data() + at, n);
    for (int i = 0; i < 4; ++i) file.push_back(static_cast<std::uint8_t>(crc >> (8 * i)));
  }
  return file;
}

Bytes streamOf(const Bytes& file) {
  Bytes stream;
  for (std::size_t at = 0; at < file.size(); at += 32768) {
    const std::size_t n = std::min<std::size_t>(32768, file.size() - at);
    stream.insert(stream.end(), file.begin() + at, file.begin() + at + (n < 4 ? 0 : n - 4));
  }
  return stream;
}

Strings cdcError(const std::string& text) { return {"1", "335544382", "2", text}; }

std::string failureOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const ReplAutoException& e) {
    return std::string("auto ") + e.first() + ": " + e.second();
  } catch (const ReplException& e) {
    return std::string(e.first()) + ": " + e.second();
  }
  return "";
}

Strings FbStatus::errors() const {
  Strings items;
  for (const intptr_t* v = status_->getErrors(); *v != isc_arg_end; v += 2) {
    items.push_back(std::to_string(v[0]));
    const bool text = v[0] == isc_arg_string;
    items.push_back(text ? reinterpret_cast<const char*>(v[1]) : std::to_string(v[1]));
  }
  return items;
}

std::string FbStatus::text() const {
  for (const intptr_t* v = status_->getErrors(); *v != isc_arg_end; v += 2)
    if (v[0] == isc_arg_string) return reinterpret_cast<const char*>(v[1]);
  return "";
}

Firebird::IConfig* loadConfig(const std::string& path) {
  FbStatus status;
  Firebird::CheckStatusWrapper wrapper(status);
  Firebird::IConfig* config =
      Firebird::fb_get_master_interface()->getPluginManager()->getConfig(&wrapper, path.c_str());
  if (!config) throw std::runtime_error("Firebird cannot read " + path);
  return config;
}
