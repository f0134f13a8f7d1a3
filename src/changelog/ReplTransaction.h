// The change log writer of one replicated transaction.
//
// The log is written under a temporary name while the transaction is open and receives its final
// ".fbl" name at dispose, only when commit completed with at least one record behind the header.
// Every other log is removed. The byte stream is: "ZEFO", the format version 4, the records, and
// the commit marker "{".
//
// Member definitions are grouped by concern: lifecycle in ReplTransaction.cpp, the record layouts
// and their field values in ChangeRecords.cpp, savepoints in Savepoints.cpp.
#pragma once

#include <cstdint>
#include <limits>

#include "../blockfile/TWriteFile.h"
#include "IReplTransaction.h"
#include "ReplSavepoint.h"

namespace Firebird {
class IReplField;
}

class ReplTransaction final : public Firebird::IReplTransaction, private TWriteFile {
 public:
  static constexpr std::uint8_t kFormatVersion = 4;
  // Consumers take a log's status-change time for its publication only within the minute after
  // the second in its name. A publishing rename that returns this many seconds or more after that
  // second may have set a time outside it (a stalled disk, a descheduled thread): the log is
  // renamed once more under the current second, so that it is not taken for one touched since.
  static constexpr std::int64_t kLateRenameSeconds = 30;
  static constexpr std::uint8_t kCommitMarker = 0x7B;

  explicit ReplTransaction(std::uint64_t number);
  // Frees the savepoint nodes; the writer part closes the descriptor if one is open.
  ~ReplTransaction() override;

  // Forms the temporary name in outputDirectory (which ends in a separator and must outlive this
  // object) and puts the header into the block buffer. Creates no file.
  // directoryFd >= 0 makes the log durable: its data are synced at commit and that directory
  // after the publishing rename.
  void initialize(const char* outputDirectory, int directoryFd = -1);

  void dispose() override;
  std::int32_t insertRecord(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                            Firebird::ITransaction* transaction,
                            Firebird::IReplRecord* record) override;
  std::int32_t updateRecord(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                            Firebird::ITransaction* transaction, Firebird::IReplRecord* oldRecord,
                            Firebird::IReplRecord* newRecord) override;
  std::int32_t deleteRecord(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                            Firebird::ITransaction* transaction,
                            Firebird::IReplRecord* record) override;
  std::int32_t executeSql(Firebird::IStatus* status, const char* sql, std::int64_t number) override;
  std::int32_t commit(Firebird::IStatus* status) override;
  void startSavepoint(Firebird::IStatus* status, std::int32_t number) override;
  void releaseSavepoint(Firebird::IStatus* status, std::int32_t number) override;
  void rollbackSavepoint(std::int32_t number) override;

  // The temporary name, for whoever needs to find the open log.
  const char* getFileName() const { return fileName; }

 private:
  // Formats "<dir><time>_<number><suffix>" with both numbers as 16 lower-case hex digits.
  // Formats a name of this log with the given time, or the time now; returns the time used.
  std::int64_t formatName(char* out, std::size_t size, const char* suffix,
                          std::int64_t time = kNow) const;
  static constexpr std::int64_t kNow = std::numeric_limits<std::int64_t>::min();

  // The insert and delete layouts differ only in their tag and in the kind of value.
  template <bool old>
  std::int32_t writeRowRecord(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                              Firebird::ITransaction* transaction, Firebird::IReplRecord* record,
                              std::uint8_t tag);
  // Writes 00, then text (null or length bytes) as a short text; the caller has checked length.
  void writeRecordName(const char* text, std::size_t length);
  // Writes a field name as a short text through the put operations, unless it is longer than the
  // longest name a length byte may announce.
  enum class NameResult { kWritten, kEmpty, kTooLong };
  NameResult writeFieldName(const char* name);
  // Writes a field's entry: its name, then the cursor's value of the given type (nothing more for
  // a null cursor or type 0). Nothing is written for a null or empty name, nor for a name too long.
  // touched as for writeFieldValue.
  NameResult writeFieldEntry(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                             Firebird::ITransaction* transaction, const char* name,
                             Firebird::IReplField* cursor, std::uint32_t type, bool old,
                             bool& touched);
  // Writes one value of the cursor's field, whose type code the caller has read already. Returns
  // true when it called into the server or put an error into the status, the only ways in which
  // the status can change while a record is written.
  bool writeFieldValue(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                       Firebird::ITransaction* transaction, Firebird::IReplField* cursor,
                       std::uint32_t type, bool old);
  // The same near the end of a block, where the value's fixed part is gathered first.
  bool writeGatheredValue(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                          Firebird::ITransaction* transaction, Firebird::IReplField* cursor,
                          std::uint32_t type, bool old);
  // Where a value's fixed part is stored: in the block buffer, or gathered on the stack.
  class InPlace;
  class Gathered;
  template <typename Out>
  bool encodeValue(Out& value, Firebird::IStatus* status, Firebird::IAttachment* attachment,
                   Firebird::ITransaction* transaction, Firebird::IReplField* cursor,
                   std::uint32_t type, bool old);
  // Copies the contents of the blob or array with this 8-byte id as a segment list.
  void copyBlob(Firebird::IStatus* status, Firebird::IAttachment* attachment,
                Firebird::ITransaction* transaction, const void* id);

  const char* outputDirectory;
  const std::uint64_t transactionNumber;
  bool committed;
  bool commitMarkerPut;  // by a commit that then failed to flush
  std::int64_t headerEnd;
  int directoryFd;
  ReplSavepoint* savepoints;
};
