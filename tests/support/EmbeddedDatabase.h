// A real Firebird database for the tests, created through the embedded engine in a temporary
// directory: no server process, no password file. Dropped on destruction.
#pragma once

#include <string>
#include <vector>

#include <firebird/Interface.h>

#include "TestFiles.h"

class EmbeddedDatabase {
 public:
  // Creates the database file path (which must not exist).
  explicit EmbeddedDatabase(const std::string& path);
  ~EmbeddedDatabase();
  EmbeddedDatabase(const EmbeddedDatabase&) = delete;
  EmbeddedDatabase& operator=(const EmbeddedDatabase&) = delete;

  Firebird::IAttachment* attachment() const { return attachment_; }
  // The transaction the helpers below work in; started at creation.
  Firebird::ITransaction* transaction() const { return transaction_; }
  // Commits the work so far and goes on in the same transaction.
  void commitRetaining();

  void execute(const std::string& sql);
  // Stores data as a new blob: a stream blob, or a segmented one written in pieces of segment
  // bytes.
  ISC_QUAD createBlob(const Bytes& data, bool stream, std::size_t segment = 65535);
  // Runs a statement whose one parameter is an INTEGER array of column table.column.
  void executeWithArray(const std::string& sql, const char* table, const char* column,
                        const std::vector<int>& values);

  // Throws std::runtime_error with the formatted status if the wrapper holds an error.
  void check(Firebird::CheckStatusWrapper& wrapper, const char* what) const;

 private:
  Firebird::IMaster* master_;
  Firebird::IStatus* status_;
  mutable Firebird::CheckStatusWrapper wrapper_;
  Firebird::IAttachment* attachment_ = nullptr;
  Firebird::ITransaction* transaction_ = nullptr;
};

// Runs a SELECT and hands each row's message to fn together with the output metadata.
template <typename Fn>
void forEachRow(EmbeddedDatabase& db, const std::string& sql, Fn fn) {
  Firebird::IStatus* status = Firebird::fb_get_master_interface()->getStatus();
  Firebird::CheckStatusWrapper w(status);
  Firebird::IStatement* statement = db.attachment()->prepare(
      &w, db.transaction(), 0, sql.c_str(), 3, Firebird::IStatement::PREPARE_PREFETCH_METADATA);
  db.check(w, "prepare");
  Firebird::IMessageMetadata* meta = statement->getOutputMetadata(&w);
  db.check(w, "metadata");
  Firebird::IResultSet* rows =
      statement->openCursor(&w, db.transaction(), nullptr, nullptr, meta, 0);
  db.check(w, "open cursor");
  std::vector<unsigned char> message(meta->getMessageLength(&w));
  while (rows->fetchNext(&w, message.data()) == Firebird::IStatus::RESULT_OK)
    fn(meta, message.data());
  db.check(w, "fetch");
  rows->close(&w);
  meta->release();
  statement->free(&w);
  status->dispose();
}
