// TReadFile with CRC checking over a long log in the page cache, against read() calls alone over
// the same file (its limit through the kernel), also in turns, and CRC-32C alone over the same
// blocks in memory.
#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "BenchSupport.h"
#include "Crc32c.h"
#include "PosixFaults.h"
#include "TReadFile.h"
#include "TestFiles.h"

namespace {

struct Log {
  std::string path;
  std::int64_t streamLength;
  Bytes file;  // the same bytes in memory
  Log() : path(bench::scratchDirectory() + "reader.log"), streamLength(bench::streamBytes()) {
    bench::FileWriter w(path);
    Bytes chunk(1 << 20);
    for (std::size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<std::uint8_t>(i * 31 + 7);
    for (std::int64_t at = 0; at < streamLength; at += static_cast<std::int64_t>(chunk.size()))
      w.putBytes(chunk.data(), static_cast<std::int32_t>(chunk.size()));
    w.finish();
    file = readFile(path);
  }
};

// Each benchmark makes the log afresh and removes it when it is done, so that no later benchmark
// runs beside a gigabyte of someone else's pages.
struct ScopedLog : Log {
  ~ScopedLog() { ::unlink(path.c_str()); }
};

// The whole log through TReadFile, every block's CRC checked, into out.
void readWithReader(const Log& l, std::vector<std::uint8_t>& out) {
  TReadFile reader;
  reader.open(l.path.c_str(), true);
  for (std::int64_t left = l.streamLength; left > 0;) {
    const auto n = static_cast<std::int32_t>(std::min<std::int64_t>(left, out.size()));
    reader.getBytes(out.data(), n);
    left -= n;
  }
  benchmark::DoNotOptimize(out.data());
}

// The same file by read() of 32 KiB pieces, doing nothing else.
void readCalls(const Log& l, std::vector<std::uint8_t>& block) {
  const int fd = ::open(l.path.c_str(), O_RDONLY);
  while (::read(fd, block.data(), block.size()) > 0) benchmark::DoNotOptimize(block.data());
  ::close(fd);
}

void ReaderWithCrc(benchmark::State& state) {
  const ScopedLog l;
  std::vector<std::uint8_t> out(1 << 16);
  PosixFaults::reset();
  for (auto _ : state) readWithReader(l, out);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(l.file.size()));
  const double mib =
      static_cast<double>(state.iterations()) * static_cast<double>(l.file.size()) / (1 << 20);
  const double blocks = static_cast<double>(state.iterations()) *
                        static_cast<double>((l.file.size() + 32767) / 32768);
  state.counters["reads_per_block"] = PosixFaults::calls(PosixFaults::kRead) / blocks;
  state.counters["reads_per_MiB"] = PosixFaults::calls(PosixFaults::kRead) / mib;
  state.counters["lseek_per_MiB"] = PosixFaults::calls(PosixFaults::kLseek64) / mib;
}

void Crc32cInMemory(benchmark::State& state) {
  const ScopedLog l;
  for (auto _ : state) {
    std::uint32_t folded = 0;
    for (std::size_t at = 0; at < l.file.size(); at += 32768) {
      const std::size_t n = std::min<std::size_t>(32768, l.file.size() - at) - 4;
      folded ^= crc32c(l.file.data() + at, static_cast<std::int32_t>(n));
    }
    benchmark::DoNotOptimize(folded);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(l.file.size()));
}

// The floor of any reader that uses read(): the same file in 32 KiB reads, nothing else.
void ReadCallsOnly(benchmark::State& state) {
  const ScopedLog l;
  std::vector<std::uint8_t> block(32768);
  for (auto _ : state) readCalls(l, block);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(l.file.size()));
}

// The two a few percent apart on a machine whose speed drifts by more between two benchmarks: one
// benchmark times both, in turns, on the same file.
void ReaderInTurnsWithRead(benchmark::State& state) {
  const ScopedLog l;
  std::vector<std::uint8_t> out(1 << 16), block(32768);
  bench::InTurns turns;
  for (auto _ : state) turns.round([&] { readWithReader(l, out); }, [&] { readCalls(l, block); });
  const double bytes = static_cast<double>(state.iterations()) * static_cast<double>(l.file.size());
  state.counters["reader_bytes_per_second"] = bytes / turns.firstSeconds();
  state.counters["read_bytes_per_second"] = bytes / turns.secondSeconds();
}

}  // namespace

BENCHMARK(ReadCallsOnly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ReaderWithCrc)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Crc32cInMemory)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ReaderInTurnsWithRead)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(4);
