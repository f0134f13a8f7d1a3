// A snapshot followed by the change logs, as one stream of events: first every row of the
// snapshot as a read event (op "r", source.snapshot "true", "last" on the snapshot's last row),
// then of each log the events the snapshot does not already contain.
//
// A log's row change to a table of the snapshot is left out when the snapshot's boundary for that
// table contains the log's transaction (SnapshotManifest::contains): the row read already shows
// it. Statements of such a log are left out too, as made before the rows were read. Everything
// else passes: changes to tables outside the snapshot, and every change of a later transaction.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "EventSink.h"
#include "LogFile.h"
#include "SnapshotManifest.h"
#include "SnapshotPosition.h"

class SnapshotStream {
 public:
  // Loads dir's manifest; throws std::runtime_error when there is none or it is not complete.
  explicit SnapshotStream(std::string dir);

  const SnapshotManifest& manifest() const { return manifest_; }
  std::size_t files() const { return files_.size(); }
  const std::string& file(std::size_t i) const { return files_[i]; }

  // Sends the snapshot files after position.files, one after the other. Before each file,
  // before(after) is called with the position after it (a sink that keeps the position stores it
  // with the file's events); after each, done(after).
  void sendRows(EventSink& sink, SnapshotPosition& position,
                const std::function<void(const SnapshotPosition&)>& before,
                const std::function<void(const SnapshotPosition&)>& done);

  // Sends the events of log that the snapshot does not contain; a log with none sends nothing.
  void sendLog(EventSink& sink, const LogFile& log);

  // A snapshot file as a log: its file name, the snapshot transaction's number for its
  // transaction, the file's modification second for its time.
  static LogFile fileOf(const std::string& path);

  // True when the snapshot contains the change of transaction to table.
  bool contains(std::string_view table, std::uint64_t transaction) const {
    return manifest_.contains(std::string(table), transaction);
  }
  // True when the snapshot contains the effect of a statement of transaction: for a row statement
  // (UPDATE, DELETE FROM, INSERT INTO, MERGE INTO, UPDATE OR INSERT INTO a table), as for a change
  // to its table; for any other (a schema change) when every table's rows were read after it.
  bool containsStatement(std::string_view sql, std::uint64_t transaction) const;
  // The table a row statement changes, as stored in the system tables (an unquoted name in upper
  // case); "" for any other statement.
  static std::string targetOf(std::string_view sql);

 private:
  class Filter;

  std::string dir_;
  SnapshotManifest manifest_;
  std::vector<std::string> files_;
  std::int64_t lastRow_ = -1;  // the index of the last row in the last file
};
