// CRC-32C against Intel ISA-L's crc32_iscsi on the same buffers: a whole block, and short runs.
#include <isa-l/crc.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "BenchSupport.h"
#include "Crc32c.h"

// ISA-L's CRC-32C for processors without AVX-512 (SSE4.2 and PCLMULQDQ), which its dispatch
// chooses on them; exported by the library, though its header names only the dispatcher.
extern "C" unsigned int crc32_iscsi_01(unsigned char* buffer, int length, unsigned int initial);

namespace {

std::vector<std::uint8_t>& buffer() {
  static std::vector<std::uint8_t> data = [] {
    std::vector<std::uint8_t> d(65536);
    std::mt19937 random(1);
    for (auto& b : d) b = static_cast<std::uint8_t>(random());
    // Both sides must compute the same function, or the comparison means nothing.
    for (int n : {0, 1, 7, 8, 64, 32764}) {
      if (crc32c(d.data(), n) != ~crc32_iscsi(d.data(), n, 0xFFFFFFFF)) {
        std::fprintf(stderr, "ISA-L's crc32_iscsi disagrees with crc32c at %d bytes\n", n);
        std::abort();
      }
    }
    return d;
  }();
  return data;
}

void Crc32c(benchmark::State& state) {
  const auto n = static_cast<std::int32_t>(state.range(0));
  std::uint8_t* data = buffer().data();
  for (auto _ : state) benchmark::DoNotOptimize(crc32c(data, n));
  state.SetBytesProcessed(state.iterations() * n);
}

void Crc32cTable(benchmark::State& state) {
  const auto n = static_cast<std::int32_t>(state.range(0));
  std::uint8_t* data = buffer().data();
  for (auto _ : state) {
    std::uint32_t running = 0xFFFFFFFF;
    crc32cUpdateTable(running, data, n);
    benchmark::DoNotOptimize(running);
  }
  state.SetBytesProcessed(state.iterations() * n);
}

void IsalCrc32Iscsi(benchmark::State& state) {
  const auto n = static_cast<int>(state.range(0));
  std::uint8_t* data = buffer().data();
  for (auto _ : state) benchmark::DoNotOptimize(crc32_iscsi(data, n, 0xFFFFFFFF));
  state.SetBytesProcessed(state.iterations() * n);
}

void sizes(benchmark::internal::Benchmark* b) {
  for (int n : {1, 2, 3, 4, 8, 16, 32, 64}) b->Arg(n);
}

// Both sides of the block comparison run at the machine's limit, a few percent apart, while a
// shared machine's speed drifts by more than that between two benchmarks. So one benchmark times
// both, in turns, on the same block, and reports each side's throughput.
void Crc32cBlockInTurnsWithIsal(benchmark::State& state) {
  constexpr int kBlock = 32764, kRounds = 64;
  std::uint8_t* data = buffer().data();
  bench::InTurns turns;
  for (auto _ : state) {
    turns.round(
        [&] {
          for (int r = 0; r < kRounds; ++r) benchmark::DoNotOptimize(crc32c(data, kBlock));
        },
        [&] {
          for (int r = 0; r < kRounds; ++r)
            benchmark::DoNotOptimize(crc32_iscsi(data, kBlock, 0xFFFFFFFF));
        });
  }
  const double bytes = static_cast<double>(state.iterations()) * kRounds * kBlock;
  state.counters["ours_bytes_per_second"] = bytes / turns.firstSeconds();
  state.counters["isal_bytes_per_second"] = bytes / turns.secondSeconds();
}

}  // namespace

// What a processor without AVX-512 runs, on this one: our CRC with the 512-bit fold switched off
// (the 256-bit fold where the processor has VPCLMULQDQ, else the three lanes) against ISA-L's
// path for such processors, in turns on the same block.
void Crc32cWithoutAvx512InTurnsWithIsal(benchmark::State& state) {
#if defined(FBCDC_HAVE_FOLD_CRC)
  constexpr int kBlock = 32764, kRounds = 64;
  std::uint8_t* data = buffer().data();
  const bool fold = crc32cUseFold, fold256 = crc32cUseFold256;
  crc32cUseFold = false;
  crc32cUseFold256 = crc32cHasFold256();
  if (crc32c(data, kBlock) != ~crc32_iscsi_01(data, kBlock, 0xFFFFFFFF)) {
    crc32cUseFold = fold;
    crc32cUseFold256 = fold256;
    state.SkipWithError("ISA-L's crc32_iscsi_01 disagrees");
    return;
  }
  bench::InTurns turns;
  for (auto _ : state) {
    turns.round(
        [&] {
          for (int r = 0; r < kRounds; ++r) benchmark::DoNotOptimize(crc32c(data, kBlock));
        },
        [&] {
          for (int r = 0; r < kRounds; ++r)
            benchmark::DoNotOptimize(crc32_iscsi_01(data, kBlock, 0xFFFFFFFF));
        });
  }
  crc32cUseFold = fold;
  crc32cUseFold256 = fold256;
  const double bytes = static_cast<double>(state.iterations()) * kRounds * kBlock;
  state.counters["ours_bytes_per_second"] = bytes / turns.firstSeconds();
  state.counters["isal_bytes_per_second"] = bytes / turns.secondSeconds();
#else
  state.SkipWithError("no carry-less multiplication on this processor's architecture");
#endif
}

BENCHMARK(Crc32c)->Apply(sizes)->Arg(32764);
BENCHMARK(IsalCrc32Iscsi)->Apply(sizes)->Arg(32764);
BENCHMARK(Crc32cBlockInTurnsWithIsal);
BENCHMARK(Crc32cWithoutAvx512InTurnsWithIsal);
BENCHMARK(Crc32cTable)->Arg(64)->Arg(32764);
