// Plays the server's part for the plugin over a real database: loads the plugin library with
// dlopen, calls getReplPlugin with interface version 30 and a Firebird configuration file, and
// runs a Workload in one or more attachments, handing every change to the plugin inside the same
// database transaction. Order at the end of a transaction: the plugin's commit, the database's
// commit, then dispose; a transaction rolled back in the database is disposed without commit.
// Every transaction is disposed before the plugin.
//
// The driver also records the order in which the database's commits returned, and compares it
// with the order in which the logs were published (LogDirectory's order): a thread that stalls
// between the database's commit and the plugin's dispose, which publishes the log, lets a log
// committed later be published first.
#pragma once

#include <cstdint>
#include <string>

#include "Credentials.h"

struct CaptureOptions {
  std::string database;         // created with the workload's schema when missing
  Credentials credentials;      // who every attachment to it is
  std::string pluginLibrary;    // path of libfbcdc.so
  std::string configFile;       // the plugin's configuration (OutputDirectory = ...)
  std::string outputDirectory;  // the same directory, for the figures of published logs
  std::uint64_t seed = 1;
  std::uint64_t transactions = 1000;
  int threads = 1;
  std::size_t maxBlob = 4 << 20;
  int hotRows = 0;        // rows shared by all threads (Workload's hot rows)
  bool progress = false;  // a line on stderr every second
};

struct CaptureSummary {
  std::uint64_t committed = 0;
  std::uint64_t rolledBack = 0;
  std::uint64_t conflicts = 0;  // of the rolled back: ended by a lock conflict or a deadlock
  // Row changes and statements of committed transactions that no savepoint rollback undid:
  // what the published logs hold.
  std::uint64_t rows = 0;
  std::uint64_t statements = 0;
  std::uint64_t logBytes = 0;  // bytes of the logs published
  double seconds = 0;          // wall time of the workload
  // Time inside the plugin's calls, all threads together, and of it the server calls the plugin
  // made (blob reads) and its file calls; the rest is its own work. fileSeconds is 0 when the
  // program does not export the file calls that PluginCallTimes times (filesSeen false).
  double pluginSeconds = 0;
  double serverSeconds = 0;
  double fileSeconds = 0;
  bool filesSeen = false;
  double workSeconds = 0;  // time of the threads' work, all threads together
  // Publication order against commit order, over the published logs of this run's transactions
  // (orderedLogs): the adjacent pairs of them published in the opposite order of their commits;
  // of those, the pairs with one publication time, which their names ordered; and the inverted
  // pairs among the logs that changed one hot row (each hot row's logs in publication order),
  // which an applier must not take in publication order. latestBy: the longest a log was
  // published after one that committed after it, in nanoseconds (0 when none was).
  std::uint64_t orderedLogs = 0;
  std::uint64_t inverted = 0;
  std::uint64_t invertedSameTime = 0;
  std::uint64_t hotInverted = 0;
  std::int64_t latestBy = 0;
};

class CaptureDriver {
 public:
  explicit CaptureDriver(CaptureOptions options) : options_(std::move(options)) {}
  // Runs the workload; throws std::runtime_error on any failure of the plugin or the database.
  CaptureSummary run();

 private:
  CaptureOptions options_;
};
