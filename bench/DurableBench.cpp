// Single-record transactions per second with DurableLogs off and on, in memory (/dev/shm) and on
// the machine's disk (out/ of the working directory), side by side in one run.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "BenchSupport.h"
#include "IReplTransaction.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

void SingleRecordTransactions(benchmark::State& state) {
  const bool durable = state.range(0) != 0;
  const bool disk = state.range(1) != 0;
  const std::string base = disk ? "out/bench-durable-" + std::to_string(::getpid()) + "/"
                                : bench::scratchDirectory() + "durable/";
  ::mkdir("out", 0770);
  ::mkdir(base.c_str(), 0770);
  const std::string logs = base + "logs/";
  writeFile(base + "plugin.conf",
            "OutputDirectory = " + logs + "\nDurableLogs = " + (durable ? "true" : "false") + "\n");
  FbStatus status;
  Firebird::IConfig* config = loadConfig(base + "plugin.conf");
  Firebird::IReplPlugin* plugin = getReplPlugin(status, 30, config);
  config->release();
  std::uint64_t number = 0;
  for (auto _ : state) {
    Firebird::IReplTransaction* t = plugin->startTransaction(status, ++number);
    t->executeSql(status, "update t set n = n + 1", 1);
    t->commit(status);
    t->dispose();
    if (number % 1000 == 0) {
      state.PauseTiming();
      std::system(("rm -f " + logs + "*").c_str());
      state.ResumeTiming();
    }
  }
  plugin->dispose();
  std::system(("rm -rf " + base).c_str());
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(std::string(durable ? "durable" : "default") + (disk ? ", disk" : ", memory"));
}

}  // namespace

BENCHMARK(SingleRecordTransactions)
    ->ArgNames({"durable", "disk"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({0, 1})
    ->Args({1, 1})
    ->UseRealTime();
