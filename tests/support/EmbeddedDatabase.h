// A real Firebird database for the tests: the product's Database, created through the embedded
// engine in a temporary directory (no server process, no password file) and dropped at the end.
// Calls throw Firebird::FbException on failure, as Database's do.
#pragma once

#include <string>

#include "Database.h"
#include "Message.h"
#include "TestFiles.h"

class EmbeddedDatabase : public Database {
 public:
  // Creates the database file path (which must not exist).
  explicit EmbeddedDatabase(const std::string& path) : Database(path, true) {}
  ~EmbeddedDatabase();

  // Stores data as a new blob: a stream blob, or a segmented one written in pieces of segment
  // bytes (Database writes segmented blobs in pieces of 65535 only).
  ISC_QUAD createBlob(const Bytes& data, bool stream, std::size_t segment = 65535);
};

// Runs a SELECT in the database's transaction and hands each row to fn as a Message.
template <typename Fn>
void forEachRow(Database& db, const std::string& sql, Fn fn) {
  Firebird::IStatement* statement = db.prepare(sql);
  Firebird::IMessageMetadata* meta = statement->getOutputMetadata(db.status());
  Message row(db.status(), meta);
  meta->release();
  Firebird::IResultSet* rows =
      statement->openCursor(db.status(), db.transaction(), nullptr, nullptr, row.metadata(), 0);
  while (rows->fetchNext(db.status(), row.buffer()) == Firebird::IStatus::RESULT_OK) fn(row);
  rows->close(db.status());
  statement->free(db.status());
}
