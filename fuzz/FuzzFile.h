// The fuzz targets hand their input to the readers as a file: one scratch file per process, in
// FBCDC_FUZZ_DIR (which fuzz/run.sh creates and removes: a fuzzer ends without running the
// targets' clean-up), else in memory where the machine has /dev/shm.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// The scratch directory's path with a trailing separator.
inline const std::string& fuzzDirectory() {
  static const std::string directory = [] {
    const char* d = std::getenv("FBCDC_FUZZ_DIR");
    return std::string(d && *d ? d : "/dev/shm") + "/";
  }();
  return directory;
}

inline const std::string& fuzzPath() {
  static const std::string path =
      fuzzDirectory() + "fbcdc-fuzz-" + std::to_string(::getpid()) + ".fbl";
  return path;
}

inline void writeFuzzFile(const std::uint8_t* data, std::size_t size) {
  std::FILE* f = std::fopen(fuzzPath().c_str(), "wb");
  if (size) std::fwrite(data, 1, size, f);
  std::fclose(f);
}
