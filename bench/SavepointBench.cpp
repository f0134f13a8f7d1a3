// A savepoint rolled back into a block already on disk: counted, not timed for a target.
#include <string>

#include "BenchSupport.h"
#include "IReplPlugin.h"
#include "PosixFaults.h"
#include "ReplTransaction.h"
#include "TestFiles.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

void RollbackIntoBlockOnDisk(benchmark::State& state) {
  FbStatus status;
  const std::string config = bench::scratchDirectory() + "sp.conf";
  writeFile(config, "OutputDirectory = " + bench::scratchDirectory() + "splogs\n");
  Firebird::IConfig* c = loadConfig(config);
  Firebird::IReplPlugin* plugin = getReplPlugin(status, 30, c);
  c->release();
  Firebird::IReplTransaction* t = plugin->startTransaction(status, 5);
  const std::string sql(200, 's');
  for (int i = 0; i < 300; ++i) t->executeSql(status, sql.c_str(), i);
  long rollbacks = 0, lseeks = 0, reads = 0, bytesRead = 0;
  for (auto _ : state) {
    t->startSavepoint(status, 1);
    // About 40 KiB of records: at least one block boundary lies behind the savepoint.
    state.PauseTiming();
    for (int i = 0; i < 190; ++i) t->executeSql(status, sql.c_str(), i);
    PosixFaults::reset();
    state.ResumeTiming();
    t->rollbackSavepoint(1);
    state.PauseTiming();
    ++rollbacks;
    lseeks += PosixFaults::calls(PosixFaults::kLseek64);
    reads += PosixFaults::calls(PosixFaults::kRead);
    bytesRead += PosixFaults::bytesRead();
    state.ResumeTiming();
  }
  t->dispose();
  plugin->dispose();
  const double n = static_cast<double>(rollbacks);
  state.counters["lseek_per_rollback"] = static_cast<double>(lseeks) / n;
  state.counters["reads_per_rollback"] = static_cast<double>(reads) / n;
  state.counters["bytes_read_per_rollback"] = static_cast<double>(bytesRead) / n;
}

}  // namespace

BENCHMARK(RollbackIntoBlockOnDisk)->Unit(benchmark::kMicrosecond);
