#include "ReplPlugin.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "../blockfile/ReplException.h"
#include "../changelog/ReplTransaction.h"
#include "../status/ReplStatus.h"

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

  // DurableLogs is optional and false unless set. It is read before the directory is created, so
  // that a refused value leaves nothing behind.
  bool durable = false;
  if (Firebird::IConfigEntry* flag = config->find(&wrapper, "DurableLogs")) {
    const char* text = flag->getValue();
    const bool isTrue = text && ::strcasecmp(text, "true") == 0;
    const bool isFalse = text && ::strcasecmp(text, "false") == 0;
    if (!isTrue && !isFalse) {
      const char* refused = ReplStatus::format(
          "CDC error: DurableLogs must be true or false, not \"%.100s\"", text ? text : "");
      flag->release();
      fail(status, refused);
    }
    durable = isTrue;
    flag->release();
  }

  // Owner and group may create files in a directory made here, so that a server which does not run
  // as root can write into it. Only the last component is created; an existing path is accepted as
  // it is.
  bool created = true;
  if (::mkdir(outputDirectory, 0770) != 0) {
    if (errno != EEXIST) {
      fail(status, ReplStatus::format("CDC error creating output directory %s: %s", outputDirectory,
                                      ReplException::errnoText(errno)));
    }
    created = false;
  }

  // Durable logs sync the directory after each publishing rename, through one descriptor.
  if (durable) {
    directoryFd = ::open(outputDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directoryFd < 0) {
      const char* text = ReplStatus::format("CDC error opening output directory %s: %s",
                                            outputDirectory, ReplException::errnoText(errno));
      if (created) (void)::rmdir(outputDirectory);
      fail(status, text);
    }
  }
}

ReplPlugin::~ReplPlugin() {
  if (directoryFd >= 0) (void)::close(directoryFd);
}

void ReplPlugin::dispose() { delete this; }

Firebird::IReplTransaction* ReplPlugin::startTransaction(Firebird::IStatus* status,
                                                         std::uint64_t number) {
  ReplTransaction* transaction = nullptr;
  try {
    transaction = new ReplTransaction(number);
    transaction->initialize(outputDirectory, directoryFd);
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
