// Replays change logs into a replica database of the same schema: one database transaction per
// log, in publication order. Row changes find their row by the replica's primary key (read from
// its system tables), or, in a table without one, by every old value the log carries, which must
// match exactly one row. SQL statements are executed as they are. Each statement is prepared once
// per table and field list and reused.
//
// Exactly once: the position after each log (see FollowPosition) is stored in the replica's table
// FBCDC_APPLIED within the log's own transaction, so that a crash or a rerun never applies a log
// twice or skips one.
//
// A log that does not apply stops the applier with an ApplyError naming log and event, and leaves
// the replica as it was after the previous log. Conflicts may be resolved instead, as a replica
// that is also written to needs: kUpsert turns an insert of an existing row into an update and an
// update of a missing row into an insert, and ignores a delete of a missing row; kSkip ignores a
// delete of a missing row only. Each such case is counted and reported to the warning callback.
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

  void onWarning(std::function<void(const std::string&)> warn) { warn_ = std::move(warn); }
  const Summary& summary() const { return summary_; }

  static constexpr const char* kPositionTable = "FBCDC_APPLIED";

 private:
  struct Binder;
  struct TableInfo {
    std::vector<std::string> primaryKey;  // empty: rows are found by all their old values
  };

  // The number a SELECT COUNT(*) returns, in a transaction of its own.
  std::int32_t count(const char* sql);
  // Whether the engine can read a position from FBCDC_APPLIED.
  bool positionTableUsable();
  // Moves a position kept in an earlier version's layout into the present one.
  void upgradePositionTable();
  const TableInfo& table(std::string_view name);
  Firebird::IStatement* statement(const std::string& sql);
  // Runs sql with the values of the fields; returns the number of rows it changed.
  std::uint64_t run(const std::string& sql, Binder& binder);
  void applyEvent(const ChangeEvent& e);
  void insert(const ChangeEvent& e);
  // Updates or deletes the row that the old values name (the new ones, with keyFromNew); false
  // when there is none.
  bool change(std::string_view relation, const FieldList& fields, bool remove, bool keyFromNew);
  void conflict(const std::string& what);

  Database& db_;
  Conflicts conflicts_;
  std::function<void(const std::string&)> warn_;
  std::map<std::string, TableInfo, std::less<>> tables_;
  std::map<std::string, Firebird::IStatement*> statements_;
  std::unique_ptr<Binder> binder_;
  Summary summary_;
  std::string where_;  // log and event of the change being applied, for messages
  std::int64_t applied_ = -1;  // LOGS_APPLIED as position() read it; -1: not read
};
