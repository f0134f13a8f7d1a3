// What a snapshot directory holds: the tables in the order they are read, for each the run that
// read it (named by that run's boundary), its chunks, rows and bytes; each run's boundary and how
// long its writers were held; whether every table has been read.
//
// The manifest is the file "manifest" of the directory, rewritten whole (written under a
// temporary name, synced, renamed, the directory synced) after every table, so that a snapshot
// killed at any point finds the tables it completed. It is a text of tab-separated lines:
//
//   fbcdc-snapshot 1
//   database <path>
//   boundary <transaction> <active,...|-> <pause in microseconds> <drain in microseconds>
//   table <name> <boundary transaction, 0 before it is read> <chunks> <rows> <bytes>
//   complete
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "SnapshotBoundary.h"

class SnapshotManifest {
 public:
  static constexpr const char* kFileName = "manifest";

  struct Table {
    std::string name;
    std::uint64_t boundary = 0;  // the run that read it; 0 while it is not read
    std::uint32_t chunks = 0;
    std::uint64_t rows = 0;
    std::uint64_t bytes = 0;
    bool done() const { return boundary != 0; }
  };
  struct Run {
    SnapshotBoundary boundary;
    std::int64_t pauseMicros = 0;  // from asking for the reservation until writers went on
    std::int64_t drainMicros = 0;  // of which waiting for active writers to end
  };

  std::string database;
  std::vector<Table> tables;
  std::map<std::uint64_t, Run> runs;  // by boundary transaction
  bool complete = false;

  // Reads dir's manifest; none when the file does not exist. Throws std::runtime_error when it
  // cannot be read or is not one.
  static std::optional<SnapshotManifest> load(const std::string& dir);
  // Replaces dir's manifest atomically and durably. Throws std::runtime_error.
  void store(const std::string& dir) const;

  std::string text() const;
  static SnapshotManifest parse(const std::string& text);

  // The table of this name, or null.
  const Table* find(const std::string& table) const;
  // True when the snapshot's rows of table already contain the changes of transaction t: the
  // table is in the snapshot and t is inside the boundary of the run that read it.
  bool contains(const std::string& table, std::uint64_t t) const;
  // The boundary of the run that read a table (which must be done).
  const SnapshotBoundary& boundaryOf(const Table& table) const;

  // The chunk files of every table read, in the order of their rows.
  std::vector<std::string> chunkFiles(const std::string& dir) const;
  std::uint64_t rows() const;
};
