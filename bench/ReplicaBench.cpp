// What the applier's old-value check costs: the demo's workload (1000 transactions, one thread,
// blobs up to 4 MiB; 20 transactions in the short run), captured once, applied with the check and
// without it in turns, each time into a fresh copy of an empty replica in memory (/dev/shm), so
// that a disk's syncs do not hide the difference. The same again with small blobs, where row
// statements weigh most.
#include <time.h>

#include <filesystem>

#include "BenchSupport.h"
#include "CaptureDriver.h"
#include "Database.h"
#include "LogDirectory.h"
#include "ReplicaApplier.h"
#include "Workload.h"

namespace {

struct Captured {
  std::string dir;  // holds logs/ and empty.fdb, a replica with the schema and no rows
  std::vector<LogFile> logs;
};

const Captured& capture(std::size_t maxBlob) {
  static std::map<std::size_t, Captured> captures;
  Captured& c = captures[maxBlob];
  if (!c.logs.empty()) return c;
  c.dir = bench::scratchDirectory() + "replica-" + std::to_string(maxBlob) + "/";
  std::filesystem::create_directories(c.dir);
  {
    Database empty(c.dir + "empty.fdb", true);
    Workload::createSchema(empty);
  }
  writeFile(c.dir + "plugin.conf", "OutputDirectory = " + c.dir + "logs\n");
  CaptureOptions o;
  o.database = c.dir + "source.fdb";
  o.pluginLibrary = FBCDC_PLUGIN_PATH;
  o.configFile = c.dir + "plugin.conf";
  o.outputDirectory = c.dir + "logs";
  o.transactions = bench::streamBytes() >= (std::int64_t{256} << 20) ? 1000 : 20;
  o.maxBlob = maxBlob;
  CaptureDriver(o).run();
  c.logs = LogDirectory::list(c.dir + "logs");
  return c;
}

// A fresh replica and an applier over it, ready to apply from the start.
struct Replica {
  Replica(const Captured& c, const char* name, bool check)
      : path(c.dir + name),
        copied(std::filesystem::copy_file(c.dir + "empty.fdb", path)),
        db(path, false),
        applier(db, ReplicaApplier::Conflicts::kError),
        position(applier.position()) {
    applier.checkOldValues(check);
  }
  ~Replica() { db.drop(); }
  void applyAll(const std::vector<LogFile>& logs) {
    for (const LogFile& log : logs) {
      position.advance(log);
      applier.apply(log, position);
    }
  }

  std::string path;
  bool copied;
  Database db;
  ReplicaApplier applier;
  FollowPosition position;
};

// Seconds of processor time this thread has used: on a machine shared with other work, a steadier
// measure of the applier's own work than the wall clock (the embedded engine works in the caller's
// thread).
double threadSeconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

void ApplyWithAndWithoutCheck(benchmark::State& state) {
  const Captured& c = capture(static_cast<std::size_t>(state.range(0)));
  bench::InTurns turns;
  double cpu[2] = {0, 0};
  std::uint64_t rows = 0;
  try {
    for (auto _ : state) {
      state.PauseTiming();
      {
        Replica checked(c, "checked.fdb", true), unchecked(c, "unchecked.fdb", false);
        state.ResumeTiming();
        const auto timed = [](Replica& r, const Captured& c, double& cpu) {
          const double start = threadSeconds();
          r.applyAll(c.logs);
          cpu += threadSeconds() - start;
        };
        turns.round([&] { timed(checked, c, cpu[0]); }, [&] { timed(unchecked, c, cpu[1]); });
        state.PauseTiming();
        rows = checked.applier.summary().rows;
        if (rows != unchecked.applier.summary().rows) state.SkipWithError("the rows differ");
      }
      state.ResumeTiming();
    }
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  const double all = static_cast<double>(rows * state.iterations());
  state.counters["checked_rows_per_second"] = all / turns.firstSeconds();
  state.counters["unchecked_rows_per_second"] = all / turns.secondSeconds();
  state.counters["checked_vs_unchecked"] = turns.secondSeconds() / turns.firstSeconds();
  state.counters["rows_per_round"] = static_cast<double>(rows);
  state.counters["checked_rows_per_cpu_second"] = all / cpu[0];
  state.counters["unchecked_rows_per_cpu_second"] = all / cpu[1];
  state.counters["checked_vs_unchecked_cpu"] = cpu[1] / cpu[0];
}

}  // namespace

BENCHMARK(ApplyWithAndWithoutCheck)
    ->ArgName("max_blob")
    ->Arg(4 << 20)
    ->Arg(256)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(bench::pairSeconds() * 5);
