#include "ReplPlugin.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "../blockfile/ReplException.h"
#include "../changelog/ReplTransaction.h"
#include "ReplStatus.h"

namespace {

// Thrown once the failure is in the status; the entry function only needs to know it happened.
struct ConstructionFailed {};

[[noreturn]] void fail(Firebird::IStatus* status, const char* text) {
  ReplStatus::reportText(status, text);
  throw ConstructionFailed();
}

bool isSeparator(char c) { return c == '/' || c == '\\'; }

}  // namespace

const char* ReplPlugin::normalizeOutputDirectory(const char* text, char* out) {
  const std::size_t length = std::strlen(text);
  const bool endsInSeparator = length > 0 && isSeparator(text[length - 1]);
  // Room for the text, a separator when one must be appended, and the terminator.
  if (length + (endsInSeparator ? 0 : 1) >= static_cast<std::size_t>(kOutputDirectorySize))
    return "CDC error: Too long output directory name";
  std::memcpy(out, text, length + 1);
  if (!endsInSeparator) {
    out[length] = '/';
    out[length + 1] = '\0';
  }
  return nullptr;
}

ReplPlugin::ReplPlugin(Firebird::IStatus* status, Firebird::IConfig* config) {
  // find is judged only by the entry that comes back, not by the wrapper.
  Firebird::CheckStatusWrapper wrapper(status);
  Firebird::IConfigEntry* entry = config->find(&wrapper, "OutputDirectory");
  if (!entry) fail(status, "CDC error: No output directory name configured");

  // A key written without a value yields no text: that is no directory either.
  const char* value = entry->getValue();
  const char* error = value ? normalizeOutputDirectory(value, outputDirectory)
                            : "CDC error: No output directory name configured";
  // find handed us a reference; the text has been copied, so give it up exactly once.
  entry->release();
  if (error) fail(status, error);

  // Owner and group may create files in a directory made here, so that a server which does not run
  // as root can write into it. Only the last component is created; an existing path is accepted as
  // it is.
  if (::mkdir(outputDirectory, 0770) != 0 && errno != EEXIST) {
    fail(status, ReplStatus::format("CDC error creating output directory %s: %s", outputDirectory,
                                    ReplException::errnoText(errno)));
  }
}

void ReplPlugin::dispose() { delete this; }

Firebird::IReplTransaction* ReplPlugin::startTransaction(Firebird::IStatus* status,
                                                         std::uint64_t number) {
  ReplTransaction* transaction = nullptr;
  try {
    transaction = new ReplTransaction(number);
    transaction->initialize(outputDirectory);
    return transaction;
  } catch (const ReplException& e) {
    ReplStatus::reportException(status, e);
  } catch (...) {
    ReplStatus::reportText(status, "CDC error: Transaction initialization failed");
  }
  // The half-built transaction frees its savepoints and closes its descriptor, if any.
  delete transaction;
  return nullptr;
}
