#include "ReplAutoException.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

char* copyOf(const char* text) {
  const std::size_t length = std::strlen(text);
  char* copy = new char[length + 1];
  std::memcpy(copy, text, length + 1);
  return copy;
}

}  // namespace

ReplAutoException::ReplAutoException(const char* first, const char* message)
    : ReplException(first, copyOf(message)) {}

ReplAutoException::ReplAutoException(const ReplAutoException& other) : ReplException(other) {
  const_cast<ReplAutoException&>(other).second_ = nullptr;
}

ReplAutoException::~ReplAutoException() { delete[] second_; }

void ReplAutoException::raise(const char* first, const char* format, ...) {
  // Formatted on this call's stack, so readers in several threads may raise at once.
  char message[2048];
  va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof message - 1, format, args);
  va_end(args);
  message[sizeof message - 1] = '\0';
  throw ReplAutoException(first, message);
}
