// Replays change logs into a replica database of the same schema: one database transaction per
// log, in publication order. Row changes find their row by the replica's primary key (read from
// its system tables), or, in a table without one, by every old value the log carries. SQL
// statements are executed as they are. Each statement is prepared once per table and field list
// and reused.
//
// The applier checks, it does not trust: an update or a delete changes the row only where every
// old value the log carries (all but blob and array contents, which it never carries) equals the
// replica's, compared in the statement's own WHERE, so that "one row changed" is the check and it
// costs no extra round trip. A row that differs is a conflict like a missing one. In a table
// without a primary key, several rows holding the old values are interchangeable when they are
// identical in every column, blob contents included, and one of them is changed; rows that differ
// in what the log does not carry stop the applier, since which one the source changed cannot be
// told.
//
// Exactly once: the position after each log (see FollowPosition) is stored in the replica's table
// FBCDC_APPLIED within the log's own transaction, so that a crash or a rerun never applies a log
// twice or skips one.
//
// A log that does not apply stops the applier with an ApplyError naming log and event (and for a
// row that differs: table, key, the first differing column, the replica's value and the log's),
// and leaves the replica as it was after the previous log. Conflicts may be resolved instead, as a
// replica that is also written to needs: kUpsert turns an insert of an existing row into an
// update, an update of a missing row into an insert, applies the new values over a row that
// differs (deletes it, for a delete), and ignores a delete of a missing row; kSkip leaves a row
// that differs as it is and ignores a delete of a missing row. Each such case is counted and
// reported to the warning callback.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "ChangeEvent.h"
#include "Database.h"
#include "FollowPosition.h"
#include "LogFile.h"
#include "Message.h"

class ApplyError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ReplicaApplier {
 public:
  enum class Conflicts { kError, kUpsert, kSkip };

  struct Summary {
    std::uint64_t logs = 0;
    std::uint64_t rows = 0;
    std::uint64_t statements = 0;
    std::uint64_t resolved = 0;  // conflicts resolved by kUpsert or kSkip
    std::uint64_t differed = 0;  // of those, rows that differed from the log's old values
    // Changes in a table without a primary key that took one of several identical rows.
    std::uint64_t interchangeable = 0;
    // Logs applied ahead of one published before them, whose order their old values decided.
    std::uint64_t reordered = 0;
  };

  // replica must outlive the applier. Creates FBCDC_APPLIED when the replica lacks it.
  ReplicaApplier(Database& replica, Conflicts conflicts);
  ~ReplicaApplier();
  ReplicaApplier(const ReplicaApplier&) = delete;
  ReplicaApplier& operator=(const ReplicaApplier&) = delete;

  // The logs already applied. Read it before applying: a log is applied only over the position
  // read last (or stored by this applier since).
  FollowPosition position();
  // Applies log and stores after (the position including it) in the same transaction; throws
  // ApplyError, undoing the log, when another applier moved the position meanwhile.
  void apply(const LogFile& log, const FollowPosition& after);

  // For a replica filled from a snapshot first: the position is stored as prefix followed by the
  // log position, and position() reads the log position behind it. A stored position with a tab
  // (which no log position has) and another prefix is refused by position(): it is the progress
  // of a snapshot that this applier was not told of.
  void positionPrefix(std::string prefix) { prefix_ = std::move(prefix); }
  // The stored position as it is, prefix and all; read like position().
  std::string storedPosition();
  // Applies every event of log and stores the text stored (a snapshot's progress) as the
  // position, in the same transaction, as apply() does.
  void applyWithPosition(const LogFile& log, const std::string& stored);
  // Events for which skip returns true are left out of every log applied (changes a snapshot
  // already holds).
  using SkipFn = std::function<bool(const LogFile& log, const ChangeEvent& event)>;
  void skipEvents(SkipFn skip) { skip_ = std::move(skip); }

  // Applies logs[first] over position, in publication order where it applies cleanly. Two
  // transactions that change one row commit one right after the other, and the later one's log
  // may be published first. So where logs[first] conflicts with the replica, the logs published
  // within kOrderWindow after it are tried in the order their old values admit: the earliest log
  // that applies cleanly goes first, as long as every log up to the last one taken then applies
  // cleanly too; they commit in one transaction with the position after the last. Logs dated by
  // their names, and logs holding SQL statements (which carry no old values), are never taken
  // ahead of another. more (when given) may add the logs published after logs.back() before the
  // search. When no such order exists, logs[first] is applied alone, as apply() does. Returns the
  // number of logs applied from first on, and advances position over them.
  std::size_t applyNext(std::vector<LogFile>& logs, std::size_t first, FollowPosition& position,
                        const std::function<void(std::vector<LogFile>&)>& more = nullptr);
  static constexpr std::int64_t kOrderWindow = 100 * std::int64_t{1000000};  // nanoseconds

  void onWarning(std::function<void(const std::string&)> warn) { warn_ = std::move(warn); }
  // Only to measure what the old-value check costs (bench/ReplicaBench.cpp): off, a row with a
  // primary key is found by its key alone and taken as it is.
  void checkOldValues(bool on) { check_ = on; }
  const Summary& summary() const { return summary_; }

  static constexpr const char* kPositionTable = "FBCDC_APPLIED";

 private:
  struct Binder;
  // How the old-value check compares a column (see table()).
  struct Checked {
    std::string expression;  // the column as compared
    // As it is; a text with a closing byte; a text's bytes as OCTETS with a closing byte. The
    // value is bound alike.
    enum How { kAsIs, kClosed, kOctets } how = kAsIs;
  };
  struct TableInfo {
    std::vector<std::string> primaryKey;  // empty: rows are found by all their old values
    std::map<std::string, Checked, std::less<>> columns;
  };

  // The number a SELECT COUNT(*) returns, in a transaction of its own.
  std::int32_t count(const char* sql);
  // Whether the engine can read a position from FBCDC_APPLIED.
  bool positionTableUsable();
  // Moves a position kept in an earlier version's layout into the present one.
  void upgradePositionTable();
  const TableInfo& table(std::string_view name);
  // A prepared statement, with its parameters as the server describes them.
  struct Prepared {
    struct Param {
      unsigned type, length;
      int scale;
      unsigned charSet;
      int subType;
    };
    Firebird::IStatement* statement = nullptr;
    std::vector<Param> params;
  };
  Prepared& statement(const std::string& sql);
  // Runs sql with the binder's values; returns the number of rows it changed.
  std::uint64_t run(const std::string& sql, Binder& binder);
  std::uint64_t run(const Prepared& statement, Binder& binder);
  // Runs a query with the binder's values and hands each row to fn until it returns false.
  void query(const std::string& sql, const std::function<bool(const Message&)>& fn);
  void applyEvent(const ChangeEvent& e);
  // Applies the changes of log in the open transaction. ahead: the log goes before one published
  // earlier, which a statement forbids (throws NotAhead).
  void applyEvents(const LogFile& log, bool ahead);
  // Runs work; where it throws, rolls the transaction back and reports the failure as an
  // ApplyError naming where_.
  void inTransaction(const std::function<void()>& work);
  // Stores after over the position read and commits: the end of each transaction.
  void storeAndCommit(const FollowPosition& after, std::size_t logs);
  void storeAndCommit(const std::string& serialized, std::size_t logs);
  // Applies log as if every conflict were an error; false, with the summary as it was, where it
  // does not apply cleanly (the caller undoes what it did).
  bool applyCleanly(const LogFile& log, bool ahead);
  // Extends the logs taken (taken[i] for logs[first + i]) by one log that applies cleanly, until
  // they are every log from first up to the last one taken; tries at most budget logs.
  bool settle(const std::vector<LogFile>& logs, std::size_t first, std::vector<char>& taken,
              int depth, int& budget);
  void insert(const ChangeEvent& e);

  // How an update or delete finds its row: by the old key and every old value the log carries,
  // by the old key alone (to apply the log over a row that differs), or by the new key (an insert
  // of an existing row).
  enum class Find { kOldValues, kOldKey, kNewKey };
  enum class Outcome { kChanged, kMissing, kDiffers };
  // Updates or deletes the row that the log names. kDiffers: the row of the key differs from the
  // old values, in the way differs_ says.
  Outcome change(std::string_view relation, const FieldList& fields, bool remove, Find find);
  // The terms of an update's SET, binding the new values; the number of terms. out (when given)
  // receives the terms.
  std::size_t setTerms(std::string_view relation, const FieldList& fields,
                       std::vector<std::string>* out);
  // The terms naming the row by its primary key, binding its values.
  std::size_t keyTerms(const TableInfo& t, std::string_view relation, const FieldList& fields,
                       Find find, std::vector<std::string>* out);
  // The terms comparing the old values the log carries with the row, binding them; compared
  // (when given) receives their fields. Key columns compared exactly by keyTerms are left out.
  std::size_t checkTerms(const TableInfo& t, std::string_view relation, const FieldList& fields,
                         std::vector<std::string>* out, std::vector<const FieldChange*>* compared);
  // After a change found no row: whether the row of the key is there, and then the first column
  // in which it differs from the old values, in differs_.
  bool findDifference(const TableInfo& t, std::string_view relation, const FieldList& fields);
  // Several rows of a table without a primary key hold the old values: changes one of them if
  // they are identical, else stops.
  void changeOneOf(const TableInfo& t, std::string_view relation, const FieldList& fields,
                   bool remove);
  // The key of the row the log names, as "ID=2, LINE=3".
  std::string keyText(const TableInfo& t, const FieldList& fields);
  void conflict(const std::string& what);

  Database& db_;
  Conflicts conflicts_;
  std::function<void(const std::string&)> warn_;
  std::map<std::string, TableInfo, std::less<>> tables_;
  std::map<std::string, Prepared> statements_;
  // Updates and deletes by their shape (see change()); the statements are statements_'s.
  std::map<std::string, Prepared*> shapes_;
  std::string shape_;
  std::unique_ptr<Binder> binder_;
  std::vector<unsigned char> buffer_;  // the parameters' message
  Summary summary_;
  std::string where_;    // log and event of the change being applied, for messages
  std::string differs_;  // how the row differs from the log's old values (Outcome::kDiffers)
  bool check_ = true;
  std::int64_t applied_ = -1;  // LOGS_APPLIED as position() read it; -1: not read
  std::string prefix_;         // stored before every log position (positionPrefix)
  SkipFn skip_;
};
