// How every failure of the library reaches the server's status object.
//
// A failure is one text. It goes into the status as the 4-item vector
// {isc_arg_gds, 335544382, isc_arg_string, text}: 335544382 is the server's generic error whose
// whole message is its one string argument. The vector is built on the stack and stored with
// setErrors2; nothing else is done to the status, which is neither cleared before the work nor
// touched on success.
//
// Texts formatted at run time live in a 10000-byte message buffer of the calling thread, so that
// failures in different transactions at the same moment cannot mix their texts, and each text stays
// valid after the operation returned. Fixed texts are passed as they are.
#pragma once

#include <cstdint>

#include <firebird/Interface.h>

class ReplException;

class ReplStatus {
 public:
  static constexpr std::int32_t kGenericError = 335544382;      // isc_random
  static constexpr std::int32_t kBadPluginVersion = 335545000;  // isc_eem_bad_plugin_ver
  static constexpr std::int32_t kInterfaceVersion = 30;
  static constexpr int kMessageBufferSize = 10000;

  // Stores the 4-item vector for text; returns kGenericError.
  static std::int32_t reportText(Firebird::IStatus* status, const char* text);

  // Formats "CDC error %s: %s" from the exception's two texts and reports it.
  static std::int32_t reportException(Firebird::IStatus* status, const ReplException& e);

  // Stores {isc_arg_gds, 335545000, isc_arg_number, 30, isc_arg_number, version}.
  static void reportVersionMismatch(Firebird::IStatus* status, int version);

  // Formats into this thread's message buffer, cutting a text that would not fit.
  static const char* format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

  // Whether a call into the server through wrapper left an error.
  static bool hasError(const Firebird::CheckStatusWrapper& wrapper) {
    return wrapper.isDirty() && (wrapper.getState() & Firebird::IStatus::STATE_ERRORS);
  }

  // The first error code of the status vector, the item after the first isc_arg_gds.
  static std::int32_t firstErrorCode(Firebird::IStatus* status) {
    return static_cast<std::int32_t>(status->getErrors()[1]);
  }
};
