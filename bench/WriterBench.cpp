// The block writer over a long stream of mixed puts, against the limit: the same bytes copied into
// a 32 KiB buffer, CRC'd and written with one write per block by a loop made for the purpose.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <vector>

#include "BenchSupport.h"
#include "Crc32c.h"
#include "PosixFaults.h"

namespace {

struct Op {
  std::uint8_t kind;  // 0 byte, 1 int16, 2 int32, 3 int64, 4 run
  std::uint32_t length;
  std::uint64_t value;
};

// One cycle of operations and the byte stream it produces; the benchmarks repeat it.
struct Script {
  std::vector<Op> ops;
  std::vector<std::uint8_t> source;  // byte runs are taken from here
  std::vector<std::uint8_t> stream;

  Script() : source(65536) {
    std::mt19937_64 random(42);
    for (auto& b : source) b = static_cast<std::uint8_t>(random());
    while (stream.size() < (8u << 20)) {
      Op op{};
      const unsigned pick = random() % 100;
      op.kind = pick < 30 ? 0 : pick < 45 ? 1 : pick < 60 ? 2 : pick < 75 ? 3 : 4;
      op.value = random();
      // Runs of 1 B to 64 KiB, spread evenly over the powers of two.
      op.length =
          op.kind == 4 ? 1 + static_cast<std::uint32_t>(random() % (1u << (random() % 17))) : 0;
      if (op.length > 65536) op.length = 65536;
      const int widths[] = {1, 2, 4, 8};
      if (op.kind < 4) {
        for (int i = 0; i < widths[op.kind]; ++i)
          stream.push_back(static_cast<std::uint8_t>(op.value >> (8 * i)));
      } else {
        stream.insert(stream.end(), source.begin(), source.begin() + op.length);
      }
      ops.push_back(op);
    }
  }
};

const Script& script() {
  static const Script s;
  return s;
}

void WriterMixedPuts(benchmark::State& state) {
  const Script& s = script();
  const std::int64_t target = bench::streamBytes();
  const std::string path = bench::scratchDirectory() + "writer.log";
  std::int64_t bytes = 0, writes = 0, blocks = 0, lseeks = 0;
  for (auto _ : state) {
    PosixFaults::reset();
    bench::FileWriter w(path);
    std::int64_t written = 0;
    while (written < target) {
      for (const Op& op : s.ops) {
        switch (op.kind) {
          case 0:
            w.putByte(static_cast<std::uint8_t>(op.value));
            break;
          case 1:
            w.putInt16(static_cast<std::uint16_t>(op.value));
            break;
          case 2:
            w.putInt32(static_cast<std::uint32_t>(op.value));
            break;
          case 3:
            w.putInt64(op.value);
            break;
          default:
            w.putBytes(s.source.data(), static_cast<std::int32_t>(op.length));
        }
      }
      written += static_cast<std::int64_t>(s.stream.size());
    }
    w.finish();
    bytes += written;
    writes += PosixFaults::calls(PosixFaults::kWrite);
    lseeks += PosixFaults::calls(PosixFaults::kLseek64);
    blocks += (w.getPosition() + 32767) / 32768;
    state.PauseTiming();
    ::unlink(path.c_str());
    state.ResumeTiming();
  }
  state.SetBytesProcessed(bytes);
  state.counters["writes_per_block"] = static_cast<double>(writes) / static_cast<double>(blocks);
  state.counters["lseek_per_MiB"] =
      static_cast<double>(lseeks) / (static_cast<double>(bytes) / (1 << 20));
  state.counters["writes_per_MiB"] =
      static_cast<double>(writes) / (static_cast<double>(bytes) / (1 << 20));
}

void WriterLimit(benchmark::State& state) {
  const Script& s = script();
  const std::int64_t target = bench::streamBytes();
  const std::string path = bench::scratchDirectory() + "limit.log";
  std::int64_t bytes = 0;
  alignas(64) std::uint8_t block[32768];
  for (auto _ : state) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0660);
    std::int64_t written = 0;
    std::size_t fill = 0;
    while (written < target) {
      const std::uint8_t* p = s.stream.data();
      std::size_t left = s.stream.size();
      while (left > 0) {
        const std::size_t n = std::min(left, static_cast<std::size_t>(32764) - fill);
        std::memcpy(block + fill, p, n);
        fill += n;
        p += n;
        left -= n;
        if (fill == 32764) {
          BlockFormat::storeLe32(block + 32764, crc32c(block, 32764));
          if (::write(fd, block, 32768) != 32768) state.SkipWithError("write failed");
          fill = 0;
        }
      }
      written += static_cast<std::int64_t>(s.stream.size());
    }
    if (fill > 0) {
      BlockFormat::storeLe32(block + fill, crc32c(block, static_cast<std::int32_t>(fill)));
      if (::write(fd, block, fill + 4) != static_cast<ssize_t>(fill + 4))
        state.SkipWithError("write failed");
    }
    ::close(fd);
    bytes += written;
    state.PauseTiming();
    ::unlink(path.c_str());
    state.ResumeTiming();
  }
  state.SetBytesProcessed(bytes);
}

}  // namespace

// Each side writes a gigabyte of fresh pages; the median of three runs keeps one slow page
// allocation from deciding the ratio.
BENCHMARK(WriterMixedPuts)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
BENCHMARK(WriterLimit)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
