// fbcdc snapshot: the current rows of a database's tables as snapshot files.
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "Command.h"
#include "Database.h"
#include "LoginOptions.h"
#include "SnapshotWriter.h"

namespace fbcdc {

namespace {

double mb(std::uint64_t bytes) { return static_cast<double>(bytes) / 1e6; }

double rate(double amount, double seconds) { return seconds > 0 ? amount / seconds : 0; }

}  // namespace

int snapshotCommand(int argc, char** argv) {
  CLI::App app(
      "Reads the current rows of every user table (or the named ones) in one consistent "
      "snapshot and writes them into SNAPDIR as snapshot files in the change logs' format, with "
      "the boundary that tells which logs' changes they already contain. Writers go on: only "
      "when two looks at the active transactions cannot tell the boundary are they held while "
      "the snapshot's transaction starts, and the summary says so. Run again on the same "
      "SNAPDIR, it keeps the tables already written and reads the rest.",
      argv[0]);
  std::string database, output, tables;
  std::uint64_t chunkRows = 100000;
  app.add_option("--database", database, "the source: a path, host:path or host/port:path")
      ->type_name("SRC")
      ->required();
  app.add_option("--output", output, "the snapshot directory (made when missing)")
      ->type_name("SNAPDIR")
      ->required();
  app.add_option("--tables", tables, "the tables to read (default: all)")->type_name("T,...");
  wholeNumber(app.add_option("--chunk-rows", chunkRows, "rows per snapshot file (default 100000)"),
              1, 1000000000);
  LoginOptions login;
  login.add(app);
  if (const int status = parse(app, argc, argv); status >= 0) return status;

  SnapshotOptions options;
  options.output = output;
  options.chunkRows = chunkRows;
  std::istringstream list(tables);
  for (std::string name; std::getline(list, name, ',');) {
    const std::size_t first = name.find_first_not_of(' ');
    if (first == std::string::npos) continue;
    options.tables.push_back(name.substr(first, name.find_last_not_of(' ') - first + 1));
  }

  try {
    Database db(database, login.credentials(), false);
    SnapshotWriter writer(db, options);
    const bool terminal = ::isatty(STDERR_FILENO);
    const SnapshotSummary s = writer.run([&](const SnapshotProgress& p) {
      std::fprintf(stderr, "%ssnapshot: table %zu/%zu %s, %llu rows, %.1f MB, %.0f rows/s%s",
                   terminal ? "\r" : "", p.tablesDone + 1 > p.tables ? p.tables : p.tablesDone + 1,
                   p.tables, p.table.c_str(), static_cast<unsigned long long>(p.rows), mb(p.bytes),
                   rate(static_cast<double>(p.rows), p.seconds), terminal ? "\033[K" : "\n");
    });
    if (terminal) std::fprintf(stderr, "\r\033[K");
    if (s.alreadyComplete) {
      std::fprintf(stderr, "snapshot: %s is complete already (%zu tables)\n", output.c_str(),
                   s.tablesKept);
      return kExitOk;
    }
    std::fprintf(stderr,
                 "snapshot: %zu tables read (%zu kept from an earlier run), %llu rows in %u files, "
                 "%.1f MB in %.2f s: %.0f rows/s, %.1f MB/s\n",
                 s.tablesRead, s.tablesKept, static_cast<unsigned long long>(s.rows), s.chunks,
                 mb(s.bytes), s.seconds, rate(static_cast<double>(s.rows), s.seconds),
                 rate(mb(s.bytes), s.seconds));
    if (s.tablesRead > 0 && !s.paused)
      std::fprintf(stderr,
                   "snapshot: writers never held (%d starts could not tell the boundary and were "
                   "made again); boundary: transaction %llu, %zu active\n",
                   s.unpausedTries, static_cast<unsigned long long>(s.boundary.transaction()),
                   s.boundary.active().size());
    if (s.tablesRead > 0 && s.paused)
      std::fprintf(stderr,
                   "snapshot: writers held %.1f ms at most (%.1f ms of it asking for the "
                   "reservation, refused %d times while writers were active) after %d starts "
                   "could not tell the boundary; boundary: transaction %llu, %zu active\n",
                   s.pauseSeconds * 1e3, s.drainSeconds * 1e3, s.reservationRetries,
                   s.unpausedTries, static_cast<unsigned long long>(s.boundary.transaction()),
                   s.boundary.active().size());
  } catch (const Firebird::FbException& e) {
    complain("snapshot", Database::describe(e));
    return kExitFailed;
  } catch (const std::exception& e) {
    complain("snapshot", e.what());
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace fbcdc
