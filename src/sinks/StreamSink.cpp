#include "StreamSink.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {
constexpr std::size_t kChunk = 64 * 1024;
}

StreamSink::StreamSink(EventWriter& writer, std::FILE* out, bool durable)
    : writer_(writer), out_(out) {
  struct stat st;
  sync_ = durable && ::fstat(::fileno(out), &st) == 0 && S_ISREG(st.st_mode);
}

void StreamSink::drain(bool flush) {
  // The writer's buffer goes to the file by write(2) itself, once per piece, after whatever the
  // stream still holds: through the stream it would be copied once more on its way.
  // A stream without a descriptor (in memory) takes it through stdio.
  std::string_view pending = writer_.pending();
  const int fd = ::fileno(out_);
  if (fd < 0 && !pending.empty() &&
      std::fwrite(pending.data(), 1, pending.size(), out_) != pending.size())
    throw std::runtime_error(std::string("cannot write the output: ") + std::strerror(errno));
  if (fd < 0) pending = {};
  if (!pending.empty() && std::fflush(out_) != 0)
    throw std::runtime_error(std::string("cannot write the output: ") + std::strerror(errno));
  while (!pending.empty()) {
    const ssize_t n = ::write(fd, pending.data(), pending.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0)
      throw std::runtime_error(std::string("cannot write the output: ") + std::strerror(errno));
    pending.remove_prefix(static_cast<std::size_t>(n));
  }
  writer_.clear();
  if (flush && std::fflush(out_) != 0)
    throw std::runtime_error(std::string("cannot write the output: ") + std::strerror(errno));
  if (flush && sync_ && ::fdatasync(::fileno(out_)) != 0)
    throw std::runtime_error(std::string("cannot sync the output: ") + std::strerror(errno));
}

void StreamSink::beginLog(const LogInfo& log) { writer_.beginLog(log); }

void StreamSink::event(const ChangeEvent& event) {
  writer_.event(event);
  if (writer_.pending().size() >= kChunk) drain(false);
}

void StreamSink::endLog(const ChangeEvent& end) {
  writer_.endLog(end);
  drain(true);
}
