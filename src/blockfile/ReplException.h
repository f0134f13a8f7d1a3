// The exception in which the block file layer raises its failures.
#pragma once

class ReplException {
 public:
  // Both texts must be static: the exception owns neither. The first is a location tag such as
  // "TF::WC-w" or a fixed message; the second describes the failure.
  ReplException(const char* first, const char* second) : first_(first), second_(second) {}
  virtual ~ReplException() = default;

  ReplException(const ReplException&) = default;
  ReplException& operator=(const ReplException&) = default;

  const char* first() const { return first_; }
  const char* second() const { return second_; }

  // The C library's static message for an errno value, the text strerror gives in the C locale.
  // Static and thread-safe, so it may travel in an exception.
  static const char* errnoText(int error);

 protected:
  const char* first_;
  const char* second_;
};
