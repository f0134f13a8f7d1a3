// Reads the current rows of a database's tables and writes them as a snapshot: chunk files in the
// change log's own format (blocks closed by their CRC-32C, the "ZEFO" header, one insert record per
// row written by the plugin's own record encoder, the commit marker), named and ended as snapshot
// files (SnapshotName), and a manifest (SnapshotManifest).
//
// A run first holds the writers of the tables it is to read (a transaction reserving them for
// protected read, which waits until no writer of them is active), starts its reading transaction
// (concurrency isolation, so that every row read is as of that start), lists the transactions
// active at that moment, and lets the writers go on: SnapshotBoundary. Each table is then read in
// primary key order (a table without one in storage order) and cut into chunks of a number of
// rows; each chunk is synced and published by a rename.
//
// Resuming: the manifest records each table once all its chunks are published. A run again on the
// same directory keeps the tables recorded there (they keep the boundary of the run that read
// them), removes what a killed run left of the others, and reads those in a new run with a
// boundary of its own. A table is the unit of a boundary: the rows of one table always come from
// one reading transaction, so that one rule decides for every change to it.
#pragma once

#include <firebird/Interface.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "SnapshotManifest.h"

class Database;

struct SnapshotOptions {
  std::string output;               // the snapshot directory, created when missing
  std::vector<std::string> tables;  // none: every user table
  std::uint64_t chunkRows = 100000;
  // How often the reading transaction is started without holding writers before they are held
  // (0: always held).
  int unpausedAttempts = 20;
};

struct SnapshotProgress {
  std::size_t tables = 0;      // in the snapshot
  std::size_t tablesDone = 0;  // completed, by this run or an earlier one
  std::string table;           // being read
  std::uint64_t rows = 0;      // read by this run
  std::uint64_t bytes = 0;     // of chunk files published by this run
  double seconds = 0;          // since this run began reading
};

struct SnapshotSummary {
  bool alreadyComplete = false;  // nothing was left to read
  std::size_t tablesKept = 0;    // completed by earlier runs
  std::size_t tablesRead = 0;
  std::uint64_t rows = 0;
  std::uint64_t bytes = 0;
  std::uint32_t chunks = 0;
  double seconds = 0;          // of reading and writing
  bool paused = false;         // writers were held for the reading transaction to start
  int unpausedTries = 0;       // starts between two looks that could not tell the boundary
  double pauseSeconds = 0;     // writers held: from asking for the reservation until it ended
  double drainSeconds = 0;     // of which waiting for active writers to end
  int reservationRetries = 0;  // reservations refused because writers were active
  SnapshotBoundary boundary;
};

class SnapshotWriter {
 public:
  using ProgressFn = std::function<void(const SnapshotProgress&)>;
  // How often the reservation is asked for without waiting, and in all.
  static constexpr int kNoWaitAttempts = 50;
  static constexpr int kReservationAttempts = 1000;

  SnapshotWriter(Database& database, SnapshotOptions options)
      : db_(database), options_(std::move(options)) {}

  // Runs (or resumes) the snapshot. progress is called after each chunk and about once a second
  // while a table is read. Throws std::runtime_error, or Firebird::FbException from the database.
  SnapshotSummary run(const ProgressFn& progress = nullptr);

 private:
  std::vector<std::string> userTables();
  // The stored columns of a table (computed ones have no value of their own), in field order.
  std::vector<std::string> storedColumns(const std::string& table);
  SnapshotManifest plan();
  // Starts the reading transaction between two looks at the active transactions; returns it
  // when the two looks tell exactly which transactions it sees (own, active), else null.
  Firebird::ITransaction* startUnpaused(std::uint64_t& own, std::vector<std::uint64_t>& active);
  // Starts it while writers of the tables are held by a reservation of them.
  Firebird::ITransaction* startPaused(const std::string& reserving, std::uint64_t& own,
                                      std::vector<std::uint64_t>& active, SnapshotSummary& summary);
  // Removes what no table of the manifest owns: temporary files, chunks of tables not done.
  void clean(const SnapshotManifest& manifest);
  // Reads one table with sql in the reading transaction tr and publishes its chunks.
  void readTable(std::size_t ordinal, SnapshotManifest::Table& table, const std::string& sql,
                 Firebird::ITransaction* tr, SnapshotSummary& summary, const ProgressFn& progress,
                 SnapshotProgress& shown, std::chrono::steady_clock::time_point started);

  Database& db_;
  SnapshotOptions options_;
  int dirFd_ = -1;
  std::string dirSlash_;
};
