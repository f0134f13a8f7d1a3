// The server's view of a replication plugin.
//
// The server calls these operations through the virtual table, so the slot order and the argument
// lists are binding: slot 0 dispose, slot 1 startTransaction. The class is a plain abstract class,
// not one of the reference-counted interfaces of the OO API.
#pragma once

#include <cstdint>

#include <firebird/Interface.h>

namespace Firebird {

class IReplTransaction;

class IReplPlugin {
 public:
  // Destroys the plugin. Every transaction it started must have been disposed before.
  virtual void dispose() = 0;

  // Starts the change log of one transaction; null after a failure, which is then in the status.
  virtual IReplTransaction* startTransaction(IStatus* status, std::uint64_t number) = 0;

 protected:
  // Not virtual: the server destroys a plugin through dispose(), never with delete.
  ~IReplPlugin() = default;
};

}  // namespace Firebird
