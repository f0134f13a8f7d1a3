#include "TestFiles.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

void removeTree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    if (DIR* dir = opendir(path.c_str())) {
      while (dirent* e = readdir(dir)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") removeTree(path + "/" + name);
      }
      closedir(dir);
    }
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

}  // namespace

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/fbcdc-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (!mkdtemp(buffer.data())) throw std::runtime_error("mkdtemp failed");
  path_ = std::string(buffer.data()) + "/";
}

TempDir::~TempDir() { removeTree(path_.substr(0, path_.size() - 1)); }

std::vector<std::string> TempDir::list() const { return listDirectory(path_); }

std::vector<std::string> listDirectory(const std::string& path) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(path.c_str())) {
    while (dirent* e = readdir(dir)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool fileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

std::string hex(const Bytes& bytes) {
  std::string out;
  char piece[4];
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(piece, sizeof piece, i ? " %02X" : "%02X", bytes[i]);
    out += piece;
  }
  return out;
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

FbStatus::FbStatus() : status_(Firebird::fb_get_master_interface()->getStatus()) {}
FbStatus::~FbStatus() { status_->dispose(); }

std::vector<std::string> FbStatus::errors() const {
  std::vector<std::string> items;
  const intptr_t* v = status_->getErrors();
  while (*v != isc_arg_end) {
    const intptr_t tag = *v++;
    items.push_back(std::to_string(tag));
    if (tag == isc_arg_string || tag == isc_arg_cstring) {
      items.push_back(reinterpret_cast<const char*>(*v++));
    } else {
      items.push_back(std::to_string(*v++));
    }
  }
  return items;
}

std::string FbStatus::text() const {
  const intptr_t* v = status_->getErrors();
  for (; *v != isc_arg_end; v += 2)
    if (v[0] == isc_arg_string) return reinterpret_cast<const char*>(v[1]);
  return "";
}

Firebird::IConfig* loadConfig(const std::string& path) {
  Firebird::IMaster* master = Firebird::fb_get_master_interface();
  FbStatus status;
  Firebird::CheckStatusWrapper wrapper(status);
  Firebird::IConfig* config = master->getPluginManager()->getConfig(&wrapper, path.c_str());
  if (!config) throw std::runtime_error("Firebird cannot read " + path);
  return config;
}
