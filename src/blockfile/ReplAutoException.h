// A ReplException whose second text is formatted at run time and owned by the exception.
#pragma once

#include "ReplException.h"

class ReplAutoException : public ReplException {
 public:
  // Keeps first as it is (a static tag) and copies message into an array of its own.
  ReplAutoException(const char* first, const char* message);
  // Takes the owned text over from other, whose second text becomes null, so that exactly one
  // object frees it however often the runtime copies the exception.
  ReplAutoException(const ReplAutoException& other);
  ReplAutoException& operator=(const ReplAutoException&) = delete;
  ~ReplAutoException() override;

  // Formats the message (at most 2046 characters; longer ones are cut) and throws.
  [[noreturn]] static void raise(const char* first, const char* format, ...)
      __attribute__((format(printf, 2, 3)));
};
