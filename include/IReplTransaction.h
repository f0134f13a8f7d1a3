// The server's view of the change log of one replicated transaction.
//
// Slots 0 to 8 in this order are binding; the server calls them through the virtual table. Every
// operation that returns a code returns 0 on success, otherwise the error code that was put into
// the status.
#pragma once

#include <cstdint>

#include <firebird/Interface.h>

namespace Firebird {

class IReplRecord;

class IReplTransaction {
 public:
  // Publishes a committed log under its final name or removes an uncommitted one, then destroys
  // the object. Called exactly once, last.
  virtual void dispose() = 0;

  virtual std::int32_t insertRecord(IStatus* status, IAttachment* attachment,
                                    ITransaction* transaction, IReplRecord* record) = 0;
  virtual std::int32_t updateRecord(IStatus* status, IAttachment* attachment,
                                    ITransaction* transaction, IReplRecord* oldRecord,
                                    IReplRecord* newRecord) = 0;
  virtual std::int32_t deleteRecord(IStatus* status, IAttachment* attachment,
                                    ITransaction* transaction, IReplRecord* record) = 0;
  // Records an SQL statement (may be null) together with a number the server gives it.
  virtual std::int32_t executeSql(IStatus* status, const char* sql, std::int64_t number) = 0;

  virtual std::int32_t commit(IStatus* status) = 0;

  virtual void startSavepoint(IStatus* status, std::int32_t number) = 0;
  virtual void releaseSavepoint(IStatus* status, std::int32_t number) = 0;
  // No status: a failed rewind cannot be reported to the server.
  virtual void rollbackSavepoint(std::int32_t number) = 0;

 protected:
  ~IReplTransaction() = default;
};

}  // namespace Firebird
