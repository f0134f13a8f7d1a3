// fbcdc capture, apply, compare and demo: the plugin driven over a real database, and the logs
// replayed into a replica.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

#include "CaptureDriver.h"
#include "Command.h"
#include "Consumer.h"
#include "ConsumerUpkeep.h"
#include "DatabaseComparer.h"
#include "LogDirectory.h"
#include "LogFollower.h"
#include "LogName.h"
#include "LogVerifier.h"
#include "LoginOptions.h"
#include "Progress.h"
#include "PruneMark.h"
#include "ReplicaApplier.h"
#include "SnapshotApplier.h"
#include "Workload.h"

namespace fbcdc {

namespace {

using Clock = std::chrono::steady_clock;

double mib(std::uint64_t bytes) { return static_cast<double>(bytes) / 1048576.0; }

// The directory of this program's executable, or "" when it cannot be found.
std::string programDirectory() {
  char self[4096];
  const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "";
  self[n] = '\0';
  const std::string path(self);
  return path.substr(0, path.find_last_of('/'));
}

// The plugin library that goes with this program: beside it, then build/libfbcdc.so for
// build/tools/fbcdc, then lib/libfbcdc.so for an installed bin/fbcdc; else the loader's search.
std::string defaultPluginLibrary() {
  const std::string dir = programDirectory();
  if (!dir.empty()) {
    const std::string up = dir.substr(0, dir.find_last_of('/'));
    for (const std::string& candidate :
         {dir + "/libfbcdc.so", up + "/libfbcdc.so", up + "/lib/libfbcdc.so"})
      if (::access(candidate.c_str(), R_OK) == 0) return candidate;
  }
  return "libfbcdc.so";
}

// A Firebird configuration file naming the output directory, for a capture given none.
// It goes beside the output directory, whose parent is made when missing: the plugin itself makes
// only the directory's last component.
std::string writeConfig(const std::string& directory) {
  const std::string path = directory.substr(0, directory.find_last_not_of('/') + 1) + ".conf";
  const std::filesystem::path parent = std::filesystem::path(path).parent_path();
  std::error_code ignored;  // a parent that cannot be made shows in the write below
  if (!parent.empty()) std::filesystem::create_directories(parent, ignored);
  std::ofstream out(path);
  out << "# written by fbcdc capture\nOutputDirectory = " << directory << "\n";
  out.close();
  if (!out) throw std::runtime_error("cannot write the plugin's configuration " + path);
  return path;
}

struct CaptureArguments {
  CaptureOptions options;
  std::string output;
};

void addCaptureOptions(CLI::App& app, CaptureArguments& a) {
  wholeNumber(app.add_option("--seed", a.options.seed, "seed of the workload (default 1)"), 0,
              LLONG_MAX);
  wholeNumber(app.add_option("--transactions", a.options.transactions,
                             "transactions to run (default 1000)"),
              0, LLONG_MAX);
  // The defaults are the options' own, which the demo sets apart.
  wholeNumber(
      app.add_option("--threads", a.options.threads,
                     "concurrent attachments (default " + std::to_string(a.options.threads) + ")"),
      1, 64);
  wholeNumber(app.add_option("--max-blob", a.options.maxBlob,
                             "largest blob in bytes, 0: none (default 4194304)"),
              0, INT_MAX);
  wholeNumber(app.add_option(
                  "--hot-rows", a.options.hotRows,
                  "rows shared by all threads (default " + std::to_string(a.options.hotRows) + ")"),
              0, Workload::kMaxHotRows);
  app.add_option("--plugin", a.options.pluginLibrary, "the plugin (default: beside fbcdc)")
      ->type_name("FILE");
}

// throughServer: the database is reached through a server (host:path), where the plugin's share
// is not what it is inside a server (said in the summary).
int printSummary(const CaptureSummary& s, bool throughServer = false) {
  std::printf(
      "capture: %llu transactions (%llu committed, %llu rolled back), %llu row changes, "
      "%llu statements, %.1f MiB of log in %.1f s (%.0f transactions/s); the plugin's "
      "calls took %.2f%% of the work\n",
      static_cast<unsigned long long>(s.committed + s.rolledBack),
      static_cast<unsigned long long>(s.committed), static_cast<unsigned long long>(s.rolledBack),
      static_cast<unsigned long long>(s.rows), static_cast<unsigned long long>(s.statements),
      mib(s.logBytes), s.seconds, static_cast<double>(s.committed + s.rolledBack) / s.seconds,
      100.0 * s.pluginSeconds / s.workSeconds);
  // The plugin's own work is what is left of its calls after the server and file calls it made.
  char files[64] = "not measured (counted in its own work)";
  if (s.filesSeen)
    std::snprintf(files, sizeof files, "%.2f%%", 100.0 * s.fileSeconds / s.workSeconds);
  std::printf(
      "capture: of the work, the plugin's own work (encoding, copies, CRC) took %.2f%%, the "
      "server calls it made (blob reads) %.2f%%, its file calls (create, write, sync, rename) "
      "%s\n",
      100.0 * (s.pluginSeconds - s.serverSeconds - s.fileSeconds) / s.workSeconds,
      100.0 * s.serverSeconds / s.workSeconds, files);
  if (throughServer)
    std::printf(
        "capture: through a server the plugin's calls read every blob back over the network, "
        "which a plugin inside the server reads from its own pages: the share above is far "
        "larger than the plugin's cost in a server\n");
  if (s.conflicts > 0)
    std::printf("capture: %llu of the rolled back ended by a lock conflict\n",
                static_cast<unsigned long long>(s.conflicts));
  std::printf(
      "capture: publication order differs from commit order for %llu of %llu logs (adjacent "
      "pairs inverted; %llu of one publication time, ordered by name; %llu changing one hot "
      "row); a log was published up to %.1f ms after one committed after it\n",
      static_cast<unsigned long long>(s.inverted), static_cast<unsigned long long>(s.orderedLogs),
      static_cast<unsigned long long>(s.invertedSameTime),
      static_cast<unsigned long long>(s.hotInverted), static_cast<double>(s.latestBy) / 1e6);
  return kExitOk;
}

// Whether log is still to be applied after position. A log moved in time by a change of its
// metadata (chmod, a copy, a restore) may lie too close to the position to tell: applying it might
// apply it twice and skipping it might lose it, so the applier stops and says why, unless the log
// was named on its own, which says that it is to be applied.
bool needsApplying(const FollowPosition& position, const LogFile& log, bool named) {
  switch (position.check(log)) {
    case FollowPosition::Verdict::kDone:
      return false;
    case FollowPosition::Verdict::kNotDone:
      return true;
    case FollowPosition::Verdict::kUnknown:
      if (named) return true;
      break;
  }
  throw std::runtime_error(
      log.path +
      ": the file was changed after publication (chmod, a copy, a restore), losing the "
      "time that orders it, and lies within a minute of the replica's position " +
      position.lastName() +
      ": whether it was applied cannot be told. If the replica lacks its changes, apply it by "
      "naming it alone; then move it out of the directory");
}

// Applies the logs not yet applied; with follow, goes on as new ones are published. named: the
// names of the logs given one by one rather than found in a directory.
ReplicaApplier::Summary applyLogs(ReplicaApplier& applier, std::vector<LogFile>& logs, bool follow,
                                  const std::string& directory,
                                  const std::set<std::string>& named = {},
                                  ConsumerUpkeep* upkeep = nullptr) {
  FollowPosition position = applier.position();
  const bool inDirectory = LogDirectory::isDirectory(directory);
  // A replica behind logs that were pruned would skip them: it stops instead.
  if (inDirectory) PruneMark::check(directory, position);
  if (upkeep) upkeep->started(position);
  // Logs applied together with one published before them, which the follower hands over later.
  std::set<std::string> takenAhead;
  // Where list[first] conflicts, the logs published up to the order window after it may decide
  // the order; those published after the list was made are added, once the window has passed.
  const auto later = [&](std::size_t first) {
    return [&, first](std::vector<LogFile>& list) {
      if (!inDirectory) return;
      const std::int64_t end = list[first].publishedAt + ReplicaApplier::kOrderWindow;
      if (list.back().publishedAt > end) return;
      for (;;) {
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME, &now);
        const std::int64_t left = end - (now.tv_sec * std::int64_t{1000000000} + now.tv_nsec);
        if (left < 0) break;
        // A clock behind the file system's (a stepped clock, a file server's) waits no longer
        // than the window itself.
        ::usleep(static_cast<useconds_t>(std::min(left, ReplicaApplier::kOrderWindow) / 1000 + 1));
        if (left <= ReplicaApplier::kOrderWindow) continue;
        break;
      }
      // A settled read: one made while renames go on may miss a log renamed early in it and
      // return one renamed later, which would then carry the position past the one it missed.
      const LogFile last = list.back();
      for (const LogFile& log :
           LogDirectory::list(directory, LogDirectory::Which::kPublished, true))
        if (last < log && log.publishedAt <= end && !takenAhead.count(log.name) &&
            !position.isDone(log))
          list.push_back(log);
    };
  };
  // Applies list[i], and the logs it took along; returns how many. at: the position before it.
  const auto applyAt = [&](std::vector<LogFile>& list, std::size_t i, FollowPosition& at,
                           std::uint64_t waiting) {
    std::size_t n = 0;
    const auto work = [&] { n = applier.applyNext(list, i, at, later(i)); };
    if (upkeep)
      upkeep->apply(applier, LogFile(list[i]), waiting, work);  // a copy: work may grow list
    else
      work();
    return n;
  };
  Progress progress("apply", logs.size());
  for (std::size_t i = 0; i < logs.size() && !(follow && LogFollower::stopRequested());) {
    const bool alone = named.count(logs[i].name) != 0;
    if (!needsApplying(position, logs[i], alone)) {
      // In a directory, what the replica has already is passed over quietly; a log named on its
      // own is reported, since it may have been meant to be applied.
      if (alone) complain("apply", logs[i].path + ": skipped, at or before the replica's position");
      ++i;
      continue;
    }
    progress.update(i, logs[i].name);
    i += applyAt(logs, i, position, logs.size() - i - 1);
    const std::size_t waiting = logs.size() - i;
    if (upkeep) upkeep->taken(position, waiting, waiting > 0 ? &logs[i] : nullptr);
  }
  if (follow && !LogFollower::stopRequested()) {
    // The follower advances position itself after each log it hands over.
    LogFollower follower(directory, LogRange());
    follower.run(
        position,
        [&](const LogFile& log) {
          if (takenAhead.erase(log.name) || !needsApplying(position, log, false)) return;
          std::vector<LogFile> list{log};
          FollowPosition at = position;
          const std::size_t n = applyAt(list, 0, at, follower.waiting().size());
          for (std::size_t k = 1; k < n; ++k) takenAhead.insert(list[k].name);
        },
        [&](const FollowPosition& p) {
          if (upkeep) upkeep->taken(p, follower.waiting());
        },
        false);
  }
  return applier.summary();
}

ReplicaApplier::Conflicts conflictsOf(const std::string& name) {
  if (name == "upsert") return ReplicaApplier::Conflicts::kUpsert;
  if (name == "skip") return ReplicaApplier::Conflicts::kSkip;
  return ReplicaApplier::Conflicts::kError;
}

}  // namespace

int captureCommand(int argc, char** argv) {
  CLI::App app(
      "Drives the plugin as a server would: loads the library, hands it a Firebird "
      "configuration file, and runs a seeded workload of inserts, updates, deletes, "
      "statements and savepoints against a real database (created with the workload's "
      "schema when missing), giving the plugin every change inside the database's own "
      "transaction.",
      argv[0]);
  CaptureArguments a;
  std::string replica;
  app.add_option("--database", a.options.database, "the source database")
      ->type_name("DB")
      ->required();
  app.add_option("--output", a.output, "the plugin's output directory")->type_name("DIR");
  app.add_option("--config", a.options.configFile, "the plugin's configuration, not --output")
      ->type_name("FILE");
  app.add_option("--replica", replica, "also create this empty replica")->type_name("DB");
  addCaptureOptions(app, a);
  LoginOptions login;
  login.add(app);
  if (const int status = parse(app, argc, argv); status >= 0) return status;
  if (a.output.empty() == a.options.configFile.empty())
    return refuse("capture", "give either --output or --config");
  try {
    a.options.credentials = login.credentials();
    if (a.options.pluginLibrary.empty()) a.options.pluginLibrary = defaultPluginLibrary();
    if (!a.output.empty()) a.options.configFile = writeConfig(a.output);
    a.options.outputDirectory = a.output;
    a.options.progress = ::isatty(STDERR_FILENO);
    if (!replica.empty()) {
      bool created = false;
      Database db(replica, a.options.credentials, true, &created);
      if (created) Workload::createSchema(db);
    }
    return printSummary(CaptureDriver(a.options).run(),
                        a.options.database.find(':') != std::string::npos);
  } catch (const std::exception& e) {
    complain("capture", e.what());
    return kExitFailed;
  }
}

int applyCommand(int argc, char** argv) {
  CLI::App app(
      "Replays published logs into a replica database of the same schema, one transaction per "
      "log, in publication order, exactly once: the replica's table FBCDC_APPLIED records how "
      "far it has come. A row is changed only where it holds every old value the log carries. "
      "--conflicts upsert: an insert of an existing row updates it, an update of a missing row "
      "inserts it, the new values go over a row that differs (a delete deletes it), a delete of "
      "a missing row is skipped; --conflicts skip: a row that differs is left as it is and a "
      "delete of a missing row is skipped.",
      argv[0]);
  std::string database;
  std::string conflicts = "error";
  bool follow = false;
  std::string metrics;
  bool prune = false;
  std::vector<std::string> paths;
  app.add_option("--database", database, "the replica")->type_name("DB")->required();
  choice(app.add_option("--conflicts", conflicts, "a row not as the log expects (default error)"),
         {"error", "upsert", "skip"});
  app.add_flag("--follow", follow, "keep applying the logs of one DIR");
  app.add_option("--metrics", metrics, "with --follow: serve Prometheus metrics")
      ->type_name("HOST:PORT");
  app.add_flag("--prune", prune, "remove the logs applied (if the sole consumer)");
  std::string snapshotDir;
  app.add_option("--snapshot", snapshotDir, "fill the empty replica from this snapshot first")
      ->type_name("SNAPDIR");
  app.add_option("LOG|DIR", paths, "logs, or directories of logs")->required();
  LoginOptions login;
  login.add(app);
  if (const int status = parse(app, argc, argv); status >= 0) return status;
  if (follow && (paths.size() != 1 || !LogDirectory::isDirectory(paths[0])))
    return refuse("apply", "--follow takes exactly one directory");
  if (prune && (paths.size() != 1 || !LogDirectory::isDirectory(paths[0])))
    return refuse("apply", "--prune takes exactly one directory");
  if (!metrics.empty() && !follow) return refuse("apply", "--metrics is for apply --follow");
  try {
    if (!metrics.empty()) MetricsServer::bindAddress(metrics);
  } catch (const std::invalid_argument& e) {
    return refuse("apply", e.what());
  }
  std::vector<LogFile> logs;
  try {
    // Settled: a position must never move past a log that a directory read going on missed.
    logs = expandPaths(paths, false, true);
  } catch (const std::exception& e) {
    complain("apply", e.what());
    return kExitFailed;
  }
  // The replica's position records log names, and a position that names something else could
  // never be read back: a file named otherwise (a copy, a temporary log) is refused up front.
  for (const LogFile& log : logs) {
    LogName name;
    if (!LogName::parse(log.name, name) || !name.published) {
      return refuse("apply",
                    log.path + ": not named as a published log (<time>_<transaction>.fbl)");
    }
  }
  // Logs named one by one are applied in publication order, whatever the order of the arguments,
  // and each log once, however many ways it was named.
  std::set<std::string> named;
  for (const std::string& path : paths)
    if (!LogDirectory::isDirectory(path)) named.insert(LogName::baseName(path));
  std::sort(logs.begin(), logs.end());
  std::set<std::string> seen;
  logs.erase(std::remove_if(logs.begin(), logs.end(),
                            [&](const LogFile& log) { return !seen.insert(log.name).second; }),
             logs.end());
  try {
    // Before the attachment starts the engine's threads, so that they inherit the blocked signals.
    if (follow) LogFollower::stopOnSignals();
    // An applier killed while the embedded engine created its position table can leave the table
    // half-made; the first attachment that meets it may fail on it where the next one finds it
    // whole or gone (and the applier makes it again). The replica is opened once more before such
    // a failure counts.
    const Credentials credentials = login.credentials();
    std::unique_ptr<Database> replica;
    std::unique_ptr<ReplicaApplier> applier;
    for (int attempt = 0; !applier; ++attempt) {
      try {
        replica.reset();  // the failed attempt's attachment goes before the next one comes
        replica = std::make_unique<Database>(database, credentials, false);
        applier = std::make_unique<ReplicaApplier>(*replica, conflictsOf(conflicts));
      } catch (...) {
        if (attempt > 0) throw;
      }
    }
    applier->onWarning([](const std::string& w) { complain("apply", "warning: " + w); });
    ConsumerUpkeep upkeep("apply", {paths[0], Consumer::replica(database).text(), metrics, prune});
    const auto start = Clock::now();
    // The snapshot's rows first, each file with the position after it; then the logs, without
    // the changes the rows already hold.
    std::unique_ptr<SnapshotStream> snapshot;
    std::size_t filled = 0;
    if (!snapshotDir.empty()) {
      snapshot = std::make_unique<SnapshotStream>(snapshotDir);
      SnapshotApplier filler(*replica, *applier, *snapshot);
      Progress progress("apply", snapshot->files());
      filled = filler.applyRows(
          [&](std::size_t done, std::size_t) { progress.update(done, "snapshot"); });
    }
    const ReplicaApplier::Summary s = applyLogs(*applier, logs, follow, paths[0], named, &upkeep);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (snapshot)
      std::printf("apply: %zu snapshot files of %zu applied now (%llu rows in all)\n", filled,
                  snapshot->files(), static_cast<unsigned long long>(snapshot->manifest().rows()));
    std::printf(
        "apply: %llu logs, %llu rows, %llu statements in %.1f s (%.0f rows/s); %llu "
        "conflicts resolved\n",
        static_cast<unsigned long long>(s.logs - filled), static_cast<unsigned long long>(s.rows),
        static_cast<unsigned long long>(s.statements), seconds,
        static_cast<double>(s.rows) / seconds, static_cast<unsigned long long>(s.resolved));
    if (s.reordered > 0)
      std::printf(
          "apply: %llu logs applied ahead of one published just before them, in the order their "
          "old values admit\n",
          static_cast<unsigned long long>(s.reordered));
    if (s.differed + s.interchangeable > 0)
      std::printf(
          "apply: %llu rows differed from the log's old values; %llu changes took one of "
          "several identical rows\n",
          static_cast<unsigned long long>(s.differed),
          static_cast<unsigned long long>(s.interchangeable));
    return kExitOk;
  } catch (const std::exception& e) {
    // One line that names the replica, whatever failed: the server's reason alone does not.
    const std::string what = Database::oneLine(e.what());
    complain("apply",
             what.find(database) == std::string::npos ? "replica " + database + ": " + what : what);
    return kExitFailed;
  }
}

int compareCommand(int argc, char** argv) {
  CLI::App app(
      "Compares every table of two databases of the same schema, blob and array contents "
      "included; exit status 0 when they are equal. The applier's position table FBCDC_APPLIED "
      "is left out: only a replica has it.",
      argv[0]);
  std::string a, b;
  app.add_option("A", a, "one database")->required();
  app.add_option("B", b, "the other")->required();
  std::size_t maxDifferences = 20;
  wholeNumber(
      app.add_option("--max-differences", maxDifferences, "differences to list (default 20)"), 0,
      LLONG_MAX);
  LoginOptions login;
  login.add(app);
  if (const int status = parse(app, argc, argv); status >= 0) return status;
  try {
    const Credentials credentials = login.credentials();
    Database x(a, credentials, false);
    Database y(b, credentials, false);
    const DatabaseComparer::Result r =
        DatabaseComparer::compare(x, y, {ReplicaApplier::kPositionTable}, maxDifferences);
    if (!r.equal) {
      for (const DatabaseComparer::Difference& d : r.differences)
        std::printf("differ: %s\n", d.text.c_str());
      std::printf("differ: %llu differences, %zu listed\n",
                  static_cast<unsigned long long>(r.differenceCount), r.differences.size());
      return kExitFailed;
    }
    std::printf("equal: %llu tables, %llu rows\n", static_cast<unsigned long long>(r.tables),
                static_cast<unsigned long long>(r.rows));
    return kExitOk;
  } catch (const Firebird::FbException& e) {
    complain("compare", a + " and " + b + ": " + Database::oneLine(Database::describe(e)));
    return kExitFailed;
  } catch (const std::exception& e) {
    complain("compare", Database::oneLine(e.what()));
    return kExitFailed;
  }
}

int demoCommand(int argc, char** argv) {
  CLI::App app(
      "The whole road on an embedded database: captures a seeded workload through the plugin "
      "into DIR/logs, verifies the logs, applies them to a replica and compares the replica with "
      "the source. Starts afresh: removes DIR/source.fdb, DIR/replica.fdb and the logs in "
      "DIR/logs that an earlier demo left, saying so, and refuses a DIR that holds anything else.",
      argv[0]);
  CaptureArguments a;
  std::string dir = "out/demo";
  app.add_option("--dir", dir, "its directory (default out/demo)")->type_name("DIR");
  // Several threads sharing a few hot rows: transactions that change one row commit one right
  // after the other, which puts the order of publication to the test.
  a.options.threads = 4;
  a.options.hotRows = 4;
  addCaptureOptions(app, a);
  if (const int status = parse(app, argc, argv); status >= 0) return status;
  const std::string source = dir + "/source.fdb";
  const std::string replicaPath = dir + "/replica.fdb";
  const std::string logs = dir + "/logs";
  // Only what a demo makes is ever removed: a directory holding anything else is refused.
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    const std::string name = entry.path().filename().string();
    if (name != "source.fdb" && name != "replica.fdb" && name != "logs" && name != "logs.conf")
      return refuse("demo", dir + " holds " + name + ", which no demo made; give another --dir");
  }
  try {
    std::vector<std::string> removed;
    for (const std::string& old : {source, replicaPath})
      if (::unlink(old.c_str()) == 0) removed.push_back(old);
    std::filesystem::create_directories(dir, error);
    if (error)
      throw std::runtime_error("cannot make the directory " + dir + ": " + error.message());
    std::size_t oldLogs = 0;
    if (LogDirectory::isDirectory(logs)) {
      for (const LogFile& log : LogDirectory::list(logs, LogDirectory::Which::kBoth))
        oldLogs += ::unlink(log.path.c_str()) == 0;
    }
    if (oldLogs > 0) removed.push_back(std::to_string(oldLogs) + " logs in " + logs);
    for (std::size_t i = 0; i < removed.size(); ++i)
      std::printf("%s%s", i == 0 ? "removed the earlier demo's " : ", ", removed[i].c_str());
    if (!removed.empty()) std::printf("\n");
    {
      Database replica(replicaPath, true);
      Workload::createSchema(replica);
    }
    a.options.database = source;
    a.options.outputDirectory = logs;
    a.options.configFile = writeConfig(logs);
    if (a.options.pluginLibrary.empty()) a.options.pluginLibrary = defaultPluginLibrary();
    a.options.progress = ::isatty(STDERR_FILENO);
    std::printf("capturing %llu transactions into %s ...\n",
                static_cast<unsigned long long>(a.options.transactions), logs.c_str());
    std::fflush(stdout);
    const CaptureSummary captured = CaptureDriver(a.options).run();
    printSummary(captured);

    std::vector<LogFile> published = LogDirectory::list(logs);
    std::size_t valid = 0;
    for (const LogFile& log : published)
      valid += LogVerifier::verify(log.path).verdict == LogVerifier::Verdict::kValid;
    std::printf("verify: %zu of %zu logs valid\n", valid, published.size());

    Database replica(replicaPath, false);
    ReplicaApplier applier(replica, ReplicaApplier::Conflicts::kError);
    const auto start = Clock::now();
    const ReplicaApplier::Summary applied = applyLogs(applier, published, false, logs);
    const double applySeconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf(
        "apply: %llu logs, %llu rows, %llu statements in %.1f s; %llu logs applied ahead of "
        "one published just before them\n",
        static_cast<unsigned long long>(applied.logs),
        static_cast<unsigned long long>(applied.rows),
        static_cast<unsigned long long>(applied.statements), applySeconds,
        static_cast<unsigned long long>(applied.reordered));

    Database sourceDb(source, false);
    const DatabaseComparer::Result r =
        DatabaseComparer::compare(sourceDb, replica, {ReplicaApplier::kPositionTable});
    const std::string program = programDirectory();
    std::printf("\nthe logs are in %s; print them with: %s dump --format text %s\n\n", logs.c_str(),
                program.empty() ? "fbcdc" : (program + "/fbcdc").c_str(), logs.c_str());
    const bool ok = r.equal && valid == published.size();
    std::printf(
        "%s: %llu transactions (%llu committed), %llu rows in %llu tables, %.1f MiB of "
        "log; capture %.0f transactions/s (plugin %.2f%% of the work, its own %.2f%%), apply "
        "%.0f rows/s (capture %.0f rows/s)\n",
        ok ? "the replica equals the source" : ("THE REPLICA DIFFERS: " + r.difference).c_str(),
        static_cast<unsigned long long>(captured.committed + captured.rolledBack),
        static_cast<unsigned long long>(captured.committed),
        static_cast<unsigned long long>(r.rows), static_cast<unsigned long long>(r.tables),
        mib(captured.logBytes),
        static_cast<double>(captured.committed + captured.rolledBack) / captured.seconds,
        100.0 * captured.pluginSeconds / captured.workSeconds,
        100.0 * (captured.pluginSeconds - captured.serverSeconds - captured.fileSeconds) /
            captured.workSeconds,
        static_cast<double>(applied.rows) / applySeconds,
        static_cast<double>(captured.rows) / captured.seconds);
    return ok ? kExitOk : kExitFailed;
  } catch (const std::exception& e) {
    complain("demo", e.what());
    return kExitFailed;
  }
}

}  // namespace fbcdc
