// One attachment to a Firebird database, through the embedded engine for a local path (no server,
// no password file) or through a server for "host:path", and the transaction it works in. It
// attaches as the credentials say (Credentials): with none, the embedded engine takes the
// operating system's user.
//
// Calls go through a ThrowStatusWrapper: a failure of the server throws Firebird::FbException,
// which describe() turns into text. The destructor rolls back an open transaction and detaches.
#pragma once

#include <firebird/Interface.h>

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Credentials.h"

class Database {
 public:
  // Attaches to path; creates the database (page size 8192, dialect 3) when it does not exist
  // and create is set. created tells which happened.
  Database(const std::string& path, bool create, bool* created = nullptr)
      : Database(path, Credentials(), create, created) {}
  Database(const std::string& path, const Credentials& credentials, bool create,
           bool* created = nullptr);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  Firebird::IAttachment* attachment() const { return attachment_; }
  Firebird::ThrowStatusWrapper* status() { return &status_; }
  const std::string& path() const { return path_; }

  // The current transaction, started (read-write, concurrency, wait) on first use.
  Firebird::ITransaction* transaction();
  bool inTransaction() const { return transaction_ != nullptr; }
  void commit();
  void rollback();

  // Runs a statement without parameters in the current transaction.
  void execute(const std::string& sql);
  // Runs a statement in a transaction of its own, committed at once (schema changes).
  void executeAlone(const std::string& sql);
  Firebird::IStatement* prepare(const std::string& sql);

  // The rows of a query whose columns are all texts (cast them to VARCHAR ... CHARACTER SET
  // UTF8), in the current transaction; a null is an empty text.
  std::vector<std::vector<std::string>> texts(const std::string& sql);
  // The primary key columns of a table in key order; none when it has no primary key.
  std::vector<std::string> primaryKey(std::string_view table);
  // The primary key columns of every user table (views and system tables left out); a table
  // without one maps to none.
  std::map<std::string, std::vector<std::string>> primaryKeys();

  // Stores data as a new blob of the current transaction.
  ISC_QUAD createBlob(std::string_view data);
  // The contents of a blob or array, as the server delivers them.
  std::string readBlob(const ISC_QUAD& id);
  // Stores the elements of an array column (their bytes in the server's form, as many as the
  // column's bounds hold) and returns the new array's id.
  ISC_QUAD putArray(const std::string& table, const std::string& column, std::string_view elements);
  // The number of bytes an array column's elements take.
  std::size_t arrayBytes(const std::string& table, const std::string& column);

  // Drops the database (for tests and demos that start afresh).
  void drop();

  static std::string describe(const Firebird::FbException& e);
  // Rolls t back where another failure is being reported: the rollback's own failure, if any,
  // would only hide it.
  static void rollbackQuietly(Firebird::ITransaction* t);
  // A failure's text on one line: the server's parts (one a line, the later ones after "-")
  // joined by ": ".
  static std::string oneLine(const std::string& text);
  // A name as an SQL identifier in double quotes.
  static std::string quote(std::string_view name);

 private:
  void legacyHandles(isc_db_handle& db, isc_tr_handle& tr);
  const ISC_ARRAY_DESC& arrayDescription(const std::string& table, const std::string& column);

  std::string path_;
  std::map<std::string, ISC_ARRAY_DESC> arrays_;
  Firebird::IMaster* master_;
  Firebird::IStatus* rawStatus_;
  Firebird::ThrowStatusWrapper status_;
  Firebird::IAttachment* attachment_ = nullptr;
  Firebird::ITransaction* transaction_ = nullptr;
};
