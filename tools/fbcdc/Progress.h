// A progress line on stderr while many files are worked through, shown only when stderr is a
// terminal and redrawn at most ten times a second; erased when done.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

namespace fbcdc {

class Progress {
 public:
  Progress(const char* what, std::size_t total);
  ~Progress();
  void update(std::size_t done, const std::string& current);

 private:
  const char* what_;
  std::size_t total_;
  bool shown_;
  std::chrono::steady_clock::time_point last_;
};

}  // namespace fbcdc
