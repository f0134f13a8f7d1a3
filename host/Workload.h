// A seeded, reproducible workload of row changes against a real Firebird database, for driving
// the plugin as a server would: every change is made in the database and reported with the row
// images read back from it (the old image before the change, the new one after it), in the same
// database transaction, so that blob and array ids in the images can be read by the plugin.
//
// Schema (createSchema): ITEMS has a column of every type the plugin records (texts of the
// character sets NONE, UTF8, WIN1252 and OCTETS, every integer and NUMERIC/DECIMAL kind with
// scales, FLOAT, DOUBLE PRECISION, DATE, TIME, TIMESTAMP, BOOLEAN, text and binary blobs, an
// INTEGER array); LINES has a primary key of two columns; NOTES has no primary key; COUNTERS is
// changed only by SQL statements, which are reported as statements and not as rows.
//
// Each thread owns a range of keys, so that concurrent workloads never wait for each other.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>

#include "Database.h"
#include "IReplRecord.h"
#include "Message.h"
#include "RowImage.h"

class Workload {
 public:
  // What a transaction did, in order.
  class Listener {
   public:
    virtual ~Listener() = default;
    virtual void inserted(Firebird::IReplRecord* row) = 0;
    virtual void updated(Firebird::IReplRecord* oldRow, Firebird::IReplRecord* newRow) = 0;
    virtual void deleted(Firebird::IReplRecord* row) = 0;
    virtual void statement(const std::string& sql, std::int64_t number) = 0;
    virtual void startSavepoint(int number) = 0;
    virtual void releaseSavepoint(int number) = 0;
    virtual void rollbackSavepoint(int number) = 0;
  };

  struct Options {
    std::uint64_t seed = 1;
    int thread = 0;  // this workload's key range
    std::size_t maxBlob = 4 << 20;
  };

  // Creates the tables (and the COUNTERS rows) in an empty database.
  static void createSchema(Database& db);
  // Every table of the schema.
  static const char* const kTables[];
  struct Table;

  Workload(Database& db, const Options& options);
  ~Workload();

  // Makes the changes of transaction number index in the database's current transaction,
  // reporting each to listener. Returns false when the transaction is to be rolled back whole.
  bool run(std::uint64_t index, Listener& listener);

 private:
  struct Prepared;
  Prepared& statement(const std::string& sql);
  void execute(Prepared& p);
  // Sets parameter i, for column of table, to a random value (null now and then).
  void fill(Message& m, std::size_t i, const std::string& table, const std::string& column);
  std::string randomText(const Message::Field& f);
  std::string randomBlob(bool text);
  // The key columns of a random row of this workload's range; false when there is none.
  bool pickRow(const Table& t, Message*& key);
  // The row that key names, read back as a row image.
  std::unique_ptr<RowImage> readRow(const Table& t, Message& key);
  // Copies the first count values of key into params from first on.
  static void bindKey(Message& key, std::size_t count, Message& params, std::size_t first);

  void insertRow(Listener& l, const Table& t);
  void updateRow(Listener& l, const Table& t);
  void deleteRow(Listener& l, const Table& t);
  void counterStatement(Listener& l);

  Database& db_;
  Options options_;
  std::mt19937_64 random_;
  std::int64_t keyBase_;
  std::int64_t nextKey_;
  std::map<std::string, std::unique_ptr<Prepared>> statements_;
};
