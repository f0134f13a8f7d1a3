// Reading logs back: the decoder over a log of 10-field inserts against TReadFile reading the
// same bytes, and the JSON output of fbcdc dump for the same log.
#include <cstdio>
#include <cstring>

#include "AllocationFaults.h"
#include "BenchSupport.h"
#include "IReplTransaction.h"
#include "LogDecoder.h"
#include "LogDirectory.h"
#include "OrderRow.h"
#include "StreamSink.h"
#include "TReadFile.h"

namespace {

// One published log of inserts of the ten-field row, about a quarter of the stream size.
struct InsertLog {
  LogFile log;
  std::int64_t events = 0;
  std::int64_t bytes = 0;
  InsertLog() : events(bench::streamBytes() / 4 / 163) {
    log = bench::publishInserts(42, events);
    bytes = static_cast<std::int64_t>(readFile(log.path).size());
  }
};

const InsertLog& insertLog() {
  static const InsertLog l;
  return l;
}

void DecodeInserts(benchmark::State& state) {
  const InsertLog& l = insertLog();
  LogDecoder decoder;
  auto decodeAll = [&] {
    decoder.open(l.log.path);
    std::int64_t n = 0;
    while (decoder.next().kind != ChangeEvent::Kind::kEnd) ++n;
    if (n != l.events) std::abort();
  };
  decodeAll();  // the arena and field table reach their size once
  // Counted around the decoding alone: the benchmark library allocates between iterations.
  long allocations = 0;
  for (auto _ : state) {
    const long before = AllocationFaults::count();
    decodeAll();
    allocations += AllocationFaults::count() - before;
  }
  state.counters["allocations_per_event"] = static_cast<double>(allocations) /
                                            static_cast<double>(l.events) /
                                            static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * l.bytes);
  state.SetItemsProcessed(state.iterations() * l.events);
}

// The floor: the same file through TReadFile's bulk copy, with CRC checking.
void ReadSameBytes(benchmark::State& state) {
  const InsertLog& l = insertLog();
  std::vector<std::uint8_t> out(1 << 16);
  for (auto _ : state) {
    TReadFile reader;
    reader.open(l.log.path.c_str(), true);
    while (!reader.atEnd()) {
      const std::int32_t n = std::min<std::int32_t>(reader.available(), 1 << 16);
      std::memcpy(out.data(), reader.peek(), static_cast<std::size_t>(n));
      reader.consume(n);
    }
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(state.iterations() * l.bytes);
}

// What a reader written for exactly this record takes: the same fields through the get
// operations, with no checks and no events.
void WalkSameFields(benchmark::State& state) {
  const InsertLog& l = insertLog();
  std::uint8_t scratch[256];
  for (auto _ : state) {
    TReadFile r;
    r.open(l.log.path.c_str(), true);
    r.skip(5);
    for (std::int64_t e = 0; e < l.events; ++e) {
      r.getByte();
      r.getByte();
      r.getBytes(scratch, r.getByte());
      for (std::uint8_t n = r.getByte(); n != 0xFF; n = r.getByte()) {
        r.getBytes(scratch, n);
        r.getByte();  // marker
        switch (r.getByte()) {
          case 3:
            r.getByte();
            r.getBytes(scratch, r.getInt16());
            break;
          case 8:
            r.getInt16(), benchmark::DoNotOptimize(r.getInt16());
            break;
          case 9:
            r.getInt16(), benchmark::DoNotOptimize(r.getInt32());
            break;
          case 19:
            r.getInt16(), benchmark::DoNotOptimize(r.getInt64());
            break;
          case 12:
            benchmark::DoNotOptimize(r.getDouble());
            break;
          case 14:
            benchmark::DoNotOptimize(r.getInt32());
            break;
          case 16: {
            TReadFile::Int32Pair pair;
            r.getInt32Pair(pair);
            benchmark::DoNotOptimize(pair);
            break;
          }
          case 21:
            benchmark::DoNotOptimize(r.getByte());
            break;
          default:  // null
            break;
        }
      }
    }
  }
  state.SetBytesProcessed(state.iterations() * l.bytes);
}

// fbcdc dump --format json to /dev/null: the decoder, the JSON writer and the stream, as the
// command runs them.
void DumpJson(benchmark::State& state) {
  const InsertLog& l = insertLog();
  std::FILE* out = std::fopen("/dev/null", "w");
  static char buffer[1 << 16];
  std::setvbuf(out, buffer, _IOFBF, sizeof buffer);
  auto writer = EventWriter::create("json", EventFormat());
  for (auto _ : state) {
    StreamSink sink(*writer, out);
    sink.send(l.log);
  }
  std::fclose(out);
  state.SetItemsProcessed(state.iterations() * l.events);
  state.SetBytesProcessed(state.iterations() * l.bytes);
}

}  // namespace

BENCHMARK(DecodeInserts)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ReadSameBytes)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(WalkSameFields)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(DumpJson)->Unit(benchmark::kMillisecond)->UseRealTime();
