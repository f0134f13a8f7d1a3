// The library's one exported symbol: the server calls it once to obtain the plugin.
#include <new>

#include "IReplPlugin.h"
#include "ReplPlugin.h"
#include "../status/ReplStatus.h"

extern "C" __attribute__((visibility("default"))) Firebird::IReplPlugin* getReplPlugin(
    Firebird::IStatus* status, int version, Firebird::IConfig* config) {
  // Only the interface this library was built for is accepted, older and newer alike.
  if (version != ReplStatus::kInterfaceVersion) {
    ReplStatus::reportVersionMismatch(status, version);
    return nullptr;
  }
  try {
    // A failed allocation returns null with the status untouched. A failed construction has
    // reported into the status; the storage is given back without running a destructor.
    return new (std::nothrow) ReplPlugin(status, config);
  } catch (...) {
    return nullptr;
  }
}
