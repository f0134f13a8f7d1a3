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
  const std::string_view pending = writer_.pending();
  if (!pending.empty() && std::fwrite(pending.data(), 1, pending.size(), out_) != pending.size())
    throw std::runtime_error(std::string("cannot write the output: ") + std::strerror(errno));
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
