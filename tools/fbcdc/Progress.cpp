#include "Progress.h"

#include <unistd.h>

#include <cstdio>

namespace fbcdc {

Progress::Progress(const char* what, std::size_t total)
    : what_(what), total_(total), shown_(total > 1 && ::isatty(STDERR_FILENO)) {}

Progress::~Progress() {
  if (shown_) std::fprintf(stderr, "\r\033[K");
}

void Progress::update(std::size_t done, const std::string& current) {
  if (!shown_) return;
  const auto now = std::chrono::steady_clock::now();
  if (done != 0 && now - last_ < std::chrono::milliseconds(100)) return;
  last_ = now;
  std::fprintf(stderr, "\r\033[K%s %zu/%zu %s", what_, done, total_, current.c_str());
  std::fflush(stderr);
}

}  // namespace fbcdc
