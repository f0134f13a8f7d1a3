#include "ReplStatus.h"

#include <cstdarg>
#include <cstdio>

#include "../blockfile/ReplException.h"

namespace {
thread_local char messageBuffer[ReplStatus::kMessageBufferSize];
}  // namespace

std::int32_t ReplStatus::reportText(Firebird::IStatus* status, const char* text) {
  const intptr_t vector[] = {isc_arg_gds, kGenericError, isc_arg_string,
                             reinterpret_cast<intptr_t>(text)};
  status->setErrors2(4, vector);
  return kGenericError;
}

std::int32_t ReplStatus::reportException(Firebird::IStatus* status, const ReplException& e) {
  return reportText(status, format("CDC error %s: %s", e.first(), e.second()));
}

void ReplStatus::reportVersionMismatch(Firebird::IStatus* status, int version) {
  const intptr_t vector[] = {isc_arg_gds,       kBadPluginVersion, isc_arg_number,
                             kInterfaceVersion, isc_arg_number,    version};
  status->setErrors2(6, vector);
}

const char* ReplStatus::format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  // vsnprintf never writes past the size it is given and always terminates.
  std::vsnprintf(messageBuffer, sizeof messageBuffer, fmt, args);
  va_end(args);
  return messageBuffer;
}
