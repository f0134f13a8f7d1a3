#include "LogFormatError.h"

LogFormatError::LogFormatError(const std::string& file, std::int64_t position,
                               const std::string& reason)
    : std::runtime_error(file + ": log position " + std::to_string(position) + ": " + reason),
      file_(file),
      position_(position),
      reason_(reason) {}
