// Shared pieces of the benchmarks: sizes, scratch files, counters, and the table of ratios.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "IReplPlugin.h"
#include "LogFile.h"
#include "TWriteFile.h"
#include "TestFiles.h"

namespace bench {

// Stream sizes: FBCDC_BENCH_MIB (default 1024) for the writer and reader streams,
// FBCDC_BENCH_BLOB_MIB (default 64) for the blob. The test run sets both small.
std::int64_t streamBytes();
std::int64_t blobBytes();

// A directory in memory (/dev/shm when there is one), so that the disk does not set the pace.
const std::string& scratchDirectory();

// Resident memory of the process in KiB.
long residentKiB();

// A writer on a path of the benchmark's choice.
class FileWriter : public TWriteFile {
 public:
  explicit FileWriter(const std::string& path);
  // Flushes the last block and closes the file.
  void finish();
};

// A plugin writing into the scratch directory, for the life of the benchmark process.
struct PluginUnderTest {
  PluginUnderTest();
  FbStatus status;
  Firebird::IReplPlugin* plugin = nullptr;
};
PluginUnderTest& pluginUnderTest();

// Times two pieces of work in turns, each first in every other round, and adds up each side's
// seconds: on a shared machine whose speed drifts from one benchmark to the next, both sides of a
// ratio then see the same drift. Targets are judged on such pairs.
class InTurns {
 public:
  template <typename First, typename Second>
  void round(First&& first, Second&& second) {
    for (int turn = 0; turn < 2; ++turn) {
      const bool runFirst = (turn == 0) != swapped_;
      const auto start = std::chrono::steady_clock::now();
      if (runFirst) {
        first();
      } else {
        second();
      }
      const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
      seconds_[runFirst ? 0 : 1] += took.count();
    }
    swapped_ = !swapped_;
  }
  double firstSeconds() const { return seconds_[0]; }
  double secondSeconds() const { return seconds_[1]; }

 private:
  double seconds_[2] = {0, 0};
  bool swapped_ = false;
};

// The same for three or more pieces of work: each begins a round in its turn.
template <int N>
class Rotation {
 public:
  void round(const std::function<void()> (&work)[N]) {
    for (int k = 0; k < N; ++k) {
      const int i = (first_ + k) % N;
      const auto start = std::chrono::steady_clock::now();
      work[i]();
      seconds_[i] +=
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    first_ = (first_ + 1) % N;
  }
  double seconds(int i) const { return seconds_[i]; }

 private:
  double seconds_[N] = {};
  int first_ = 0;
};

// How long a pair timed in turns runs at least: three seconds at full size, where a target is
// judged on it, and next to nothing in the short run of the test command.
double pairSeconds();

// Publishes a log of `events` inserts of the ten-field row as transaction `number`.
LogFile publishInserts(std::uint64_t number, std::int64_t events);

// Runs `fbcdc dump --format json log` as a process (the fbcdc command built beside the plugin)
// with its output going to out; returns its exit status.
int runDump(const std::string& log, const std::string& out);

// The fbcdc command built beside the plugin.
std::string commandPath();

// Records a ratio to print after the run: numerator and denominator name benchmark runs, and the
// figure compared is the given counter of each ("bytes_per_second", "items_per_second", ...).
struct Ratio {
  const char* what;
  const char* numerator;
  const char* denominator;
  const char* counter;
  double target;  // 0: no target, shown for information
  // When set, the counter of the denominator run to use instead of counter (two figures of one
  // run compared with each other).
  const char* denominatorCounter = nullptr;
  // A fixed limit to compare with when denominator is null (events per second, say).
  double limit = 0;
};

// Runs every registered benchmark and prints the table of ratios and checked counters.
int runAndReport(int argc, char** argv);

// Removes the scratch directory and all in it; 0 on success. Every way out of the program
// calls it, or each run would leave a directory in memory.
int removeScratchDirectory();

}  // namespace bench
