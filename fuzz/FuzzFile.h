// The fuzz targets hand their input to the readers as a file: one scratch file per process, in
// memory where the machine has /dev/shm.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

inline const std::string& fuzzPath() {
  static const std::string path = "/dev/shm/fbcdc-fuzz-" + std::to_string(::getpid()) + ".fbl";
  return path;
}

inline void writeFuzzFile(const std::uint8_t* data, std::size_t size) {
  std::FILE* f = std::fopen(fuzzPath().c_str(), "wb");
  if (size) std::fwrite(data, 1, size, f);
  std::fclose(f);
}
