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
// Each workload owns a range of keys, so that concurrent workloads never wait for each other:
// ranges are taken from the sequence WORKLOAD_KEYS, so that a workload run again on the same
// database never makes a key or a NOTES tag that an earlier run made. Keys below the first range
// are left for the hot rows: ITEMS rows 1 to hotRows, shared by every workload, which a quarter of
// the transactions (by a seeded choice) change and nothing else, in READ COMMITTED transactions of
// their own, so that transactions changing one row wait for each other and commit one right after
// the other.
//
// Every change is checked to have changed exactly one row before it is reported.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

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
    int thread = 0;                 // this workload's COUNTERS row
    std::int64_t keyBase = 0;       // the first key of this workload's range, from reserveKeys
    std::size_t maxBlob = 4 << 20;  // 0: no blob or array values at all
    int hotRows = 0;                // at most kMaxHotRows
  };

  // Keys of one workload's range.
  static constexpr std::int64_t kKeyRange = 1000000000;
  static constexpr int kMaxHotRows = 1000;

  // Creates the tables the database lacks (COUNTERS with its rows) and the key sequence; a
  // database that has them all keeps them as they are.
  static void createSchema(Database& db);
  // Creates the key sequence when the database lacks it (made by an earlier version), starting
  // above every key and tag that any table holds.
  static void prepareKeys(Database& db);
  // Takes count key ranges from the sequence; the first key of the first, the others following.
  static std::int64_t reserveKeys(Database& db, int count);
  // The NOTES tag made of a key: it sorts like the key.
  static std::string noteTag(std::int64_t key);
  // Whether a failure is a lock conflict with a concurrent transaction (or a deadlock).
  static bool isConflict(const Firebird::FbException& e);
  // Every table of the schema.
  static const char* const kTables[];
  struct Table;

  Workload(Database& db, const Options& options);
  ~Workload();

  // Whether transaction number index changes hot rows.
  bool isHot(std::uint64_t index) const;
  // Starts the database transaction for a transaction that is hot or not: the database's own
  // (concurrency, wait), or for hot rows one of the workload's (read committed, record version,
  // wait). transaction() is the one started, for the plugin's calls; commit() and rollback() end
  // it.
  void begin(bool hot);
  Firebird::ITransaction* transaction() const { return transaction_; }
  void commit();
  void rollback();

  // Makes the changes of transaction number index in the transaction begun for it, reporting each
  // to listener. Returns false when the transaction is to be rolled back whole.
  bool run(std::uint64_t index, Listener& listener);
  // The hot rows that the last run changed.
  const std::vector<std::int64_t>& hotRowsChanged() const { return hotChanged_; }
  // Inserts the hot rows that are missing, reporting each; how many it inserted.
  unsigned insertHotRows(Listener& listener);

 private:
  struct Prepared;
  Prepared& statement(const std::string& sql);
  // Runs a statement that changes a row, and stops the workload unless it changed exactly one.
  void change(Prepared& p);
  Firebird::IResultSet* open(Prepared& p);
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

  void insertRow(Listener& l, const Table& t, std::int64_t key);
  void updateRow(Listener& l, const Table& t);
  void updateHotRows(Listener& l);
  void deleteRow(Listener& l, const Table& t);
  void counterStatement(Listener& l);

  Database& db_;
  Options options_;
  std::mt19937_64 random_;
  std::int64_t keyBase_;
  std::int64_t nextKey_;
  std::map<std::string, std::unique_ptr<Prepared>> statements_;
  Firebird::ITransaction* transaction_ = nullptr;
  bool ownTransaction_ = false;  // a hot transaction, not the database's
  std::vector<std::int64_t> hotChanged_;
};
