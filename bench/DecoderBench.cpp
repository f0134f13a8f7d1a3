// Reading logs back: the decoder over a log of 10-field inserts against TReadFile reading the
// same bytes, and the JSON output of fbcdc dump for the same log.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

#include "AllocationFaults.h"
#include "BenchSupport.h"
#include "IReplTransaction.h"
#include "LiteralRow.h"
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

// Decodes the whole log; the number of events must come out right.
void decodeAll(LogDecoder& decoder, const InsertLog& l) {
  decoder.open(l.log.path);
  std::int64_t n = 0;
  while (decoder.next().kind != ChangeEvent::Kind::kEnd) ++n;
  if (n != l.events) std::abort();
}

// The floor: the same file through TReadFile's bulk copy, with CRC checking.
void readAll(const InsertLog& l, std::vector<std::uint8_t>& out) {
  TReadFile reader;
  reader.open(l.log.path.c_str(), true);
  while (!reader.atEnd()) {
    const std::int32_t n = std::min<std::int32_t>(reader.available(), 1 << 16);
    std::memcpy(out.data(), reader.peek(), static_cast<std::size_t>(n));
    reader.consume(n);
  }
  benchmark::DoNotOptimize(out.data());
}

void DecodeInserts(benchmark::State& state) {
  const InsertLog& l = insertLog();
  LogDecoder decoder;
  decodeAll(decoder, l);  // the arena and field table reach their size once
  // Counted around the decoding alone: the benchmark library allocates between iterations.
  long allocations = 0;
  for (auto _ : state) {
    const long before = AllocationFaults::count();
    decodeAll(decoder, l);
    allocations += AllocationFaults::count() - before;
  }
  state.counters["allocations_per_event"] = static_cast<double>(allocations) /
                                            static_cast<double>(l.events) /
                                            static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * l.bytes);
  state.SetItemsProcessed(state.iterations() * l.events);
}

void ReadSameBytes(benchmark::State& state) {
  const InsertLog& l = insertLog();
  std::vector<std::uint8_t> out(1 << 16);
  for (auto _ : state) readAll(l, out);
  state.SetBytesProcessed(state.iterations() * l.bytes);
}

// The two above, timed in turns on the same file.
void DecodeInTurnsWithRead(benchmark::State& state) {
  const InsertLog& l = insertLog();
  LogDecoder decoder;
  std::vector<std::uint8_t> out(1 << 16);
  bench::InTurns turns;
  for (auto _ : state) turns.round([&] { decodeAll(decoder, l); }, [&] { readAll(l, out); });
  const double bytes = static_cast<double>(state.iterations()) * static_cast<double>(l.bytes);
  state.counters["decode_bytes_per_second"] = bytes / turns.firstSeconds();
  state.counters["read_bytes_per_second"] = bytes / turns.secondSeconds();
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

// Steps over one insert record of the benchmark's log lying in [p, end) and returns its length,
// or 0 when it runs past end.
std::size_t stepOverInsert(const std::uint8_t* p, const std::uint8_t* end) {
  const std::uint8_t* q = p;
  auto has = [&](std::size_t n) { return static_cast<std::size_t>(end - q) >= n; };
  if (!has(3)) return 0;
  std::size_t n = q[2];  // behind the tag and 00: the relation name's length
  q += 3;
  if (!has(n)) return 0;
  q += n;
  for (;;) {
    if (!has(1)) return 0;
    n = *q++;
    if (n == 0xFF) return static_cast<std::size_t>(q - p);
    if (!has(n + 2)) return 0;
    q += n + 1;  // the name and the value marker
    switch (*q++) {
      case 3:
        if (!has(3)) return 0;
        n = 3 + (q[1] | q[2] << 8);
        break;
      case 8:
      case 14:
        n = 4;
        break;
      case 9:
        n = 6;
        break;
      case 12:
      case 16:
        n = 8;
        break;
      case 19:
        n = 10;
        break;
      case 21:
        n = 1;
        break;
      default:  // null
        n = 0;
    }
    if (!has(n)) return 0;
    q += n;
  }
}

// The least a decoder must do: step over every record of the same file field by field, reading
// each length and type code where it lies and keeping nothing. A record that the block edge cuts
// is gathered first.
void StepOverRecords(benchmark::State& state) {
  const InsertLog& l = insertLog();
  std::uint8_t gathered[1024];
  for (auto _ : state) {
    TReadFile r;
    r.open(l.log.path.c_str(), true);
    r.skip(5);
    for (std::int64_t e = 0; e < l.events; ++e) {
      const std::int32_t available = r.available();
      const std::size_t n = stepOverInsert(r.peek(), r.peek() + available);
      if (n) {
        r.consume(static_cast<std::int32_t>(n));
        continue;
      }
      std::memcpy(gathered, r.peek(), static_cast<std::size_t>(available));
      r.consume(available);
      if (r.atEnd()) std::abort();
      const std::int32_t more = std::min<std::int32_t>(r.available(), 512);
      std::memcpy(gathered + available, r.peek(), static_cast<std::size_t>(more));
      const std::size_t whole = stepOverInsert(gathered, gathered + available + more);
      if (whole == 0) std::abort();
      r.consume(static_cast<std::int32_t>(whole) - available);
    }
    if (r.getByte() != 0x7B) std::abort();  // the walk ends at the commit marker
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
BENCHMARK(DecodeInTurnsWithRead)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(bench::pairSeconds());
BENCHMARK(WalkSameFields)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(StepOverRecords)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(DumpJson)->Unit(benchmark::kMillisecond)->UseRealTime();

namespace {

// fbcdc dump --format json as a process, to /dev/null, on one log of 300,000 ten-field inserts
// (two integers, a scaled decimal, a short UTF-8 text, a timestamp, a boolean, a double, a NULL,
// a date and a CHAR), against its two limits in the same rounds: the decoder alone on the same
// log, and the same bytes, rendered once beforehand, handed to /dev/null by write(2) in blocks of
// 64 KiB. Each round runs the three in a turning order, so that a load that drifts falls on all.
struct DumpLog {
  LogFile log;
  std::int64_t events;
  std::string rendered;  // what dump prints for the log
  DumpLog() : events(std::min<std::int64_t>(300000, bench::streamBytes() / 4 / 163)) {
    bench::PluginUnderTest& p = bench::pluginUnderTest();
    LiteralRow row("ORDERS");
    row.addLong("ID", 1234567)
        .addShort("QUANTITY", 12)
        .addInt64("AMOUNT", 1999999, -2)
        .addVarchar("NAME", "Kundin Müller 0042", 4)
        .addTimestamp("CREATED", 60369, 453960000)
        .addBoolean("ACTIVE", true)
        .addDouble("RATE", 0.0725)
        .addNull("NOTE", 3)
        .addDate("DAY", 60400)
        .addChar("CODE", "EUR", 2);
    Firebird::IReplTransaction* t = p.plugin->startTransaction(p.status, 44);
    for (std::int64_t i = 0; i < events; ++i) t->insertRecord(p.status, nullptr, nullptr, &row);
    t->commit(p.status);
    t->dispose();
    for (const LogFile& l : LogDirectory::list(bench::scratchDirectory() + "logs"))
      if (l.parsed.transaction == 44) log = l;
    const std::string out = bench::scratchDirectory() + "dump-rendered.jsonl";
    if (bench::runDump(log.path, out) != 0) std::abort();
    const Bytes bytes = readFile(out);
    rendered.assign(bytes.begin(), bytes.end());
    ::unlink(out.c_str());
  }
};

void DumpProcessAgainstLimits(benchmark::State& state) {
  static const DumpLog l;
  LogDecoder decoder;
  const int null = ::open("/dev/null", O_WRONLY);
  const auto writeAll = [&] {
    for (std::size_t at = 0; at < l.rendered.size(); at += 1 << 16) {
      const std::size_t n = std::min<std::size_t>(1 << 16, l.rendered.size() - at);
      if (::write(null, l.rendered.data() + at, n) != static_cast<ssize_t>(n)) std::abort();
    }
  };
  const auto decode = [&] {
    decoder.open(l.log.path);
    while (decoder.next().kind != ChangeEvent::Kind::kEnd) {
    }
  };
  // The processor time of the dump processes besides, which a loaded machine inflates less
  // than the wall clock.
  double dumpCpu = 0;
  const auto dump = [&] {
    rusage before, after;
    ::getrusage(RUSAGE_CHILDREN, &before);
    if (bench::runDump(l.log.path, "/dev/null") != 0) std::abort();
    ::getrusage(RUSAGE_CHILDREN, &after);
    const auto seconds = [](const rusage& r) {
      return static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
             static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) * 1e-6;
    };
    dumpCpu += seconds(after) - seconds(before);
  };
  const std::function<void()> work[3] = {dump, decode, writeAll};
  bench::Rotation<3> turns;
  for (auto _ : state) turns.round(work);
  ::close(null);
  const double events = static_cast<double>(l.events) * static_cast<double>(state.iterations());
  state.counters["dump_events_per_second"] = events / turns.seconds(0);
  state.counters["decode_events_per_second"] = events / turns.seconds(1);
  state.counters["write_events_per_second"] = events / turns.seconds(2);
  state.counters["dump_events_per_cpu_second"] = events / dumpCpu;
  state.counters["output_bytes_per_event"] =
      static_cast<double>(l.rendered.size()) / static_cast<double>(l.events);
}

}  // namespace

BENCHMARK(DumpProcessAgainstLimits)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(bench::pairSeconds() * 2);
