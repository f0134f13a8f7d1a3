// insertRecord of a ten-field row through a row image, against a hand-written encoder that
// produces the same bytes from the same values with no virtual calls.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "AllocationFaults.h"
#include "BenchSupport.h"
#include "IReplPlugin.h"
#include "LiteralRow.h"
#include "OrderRow.h"
#include "ReplTransaction.h"
#include "TestFiles.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

// The same record, written straight through the block writer.
class HandEncoder : public bench::FileWriter {
 public:
  using FileWriter::FileWriter;
  void encode(const OrderValues& v) {
    putByte(0x49);
    putByte(0);
    name("ORDERS");
    name("ID");
    putByte(0xFD), putByte(9), putInt16(0), putInt32(static_cast<std::uint32_t>(v.id));
    name("QUANTITY");
    putByte(0xFD), putByte(8), putInt16(0), putInt16(static_cast<std::uint16_t>(v.quantity));
    name("AMOUNT");
    putByte(0xFD), putByte(19), putInt16(static_cast<std::uint16_t>(-2));
    putInt64(static_cast<std::uint64_t>(v.amount));
    name("NAME");
    putByte(0xFD), putByte(3), putByte(4), putInt16(static_cast<std::uint16_t>(v.name.size()));
    putBytes(v.name.data(), static_cast<std::int32_t>(v.name.size()));
    name("CREATED");
    putByte(0xFD), putByte(16), putInt32Pair(static_cast<std::uint32_t>(v.date), v.time);
    name("ACTIVE");
    putByte(0xFD), putByte(21), putByte(v.active ? 1 : 0);
    name("RATE");
    putByte(0xFD), putByte(12), putDouble(v.rate);
    name("NOTE");
    putByte(0xFD), putByte(99);
    name("DAY");
    putByte(0xFD), putByte(14), putInt32(static_cast<std::uint32_t>(v.day));
    name("COUNTER");
    putByte(0xFD), putByte(19), putInt16(0), putInt64(static_cast<std::uint64_t>(v.counter));
    putByte(0xFF);
  }

 private:
  void name(const char* text) {
    const std::size_t n = std::strlen(text);
    putByte(static_cast<std::uint8_t>(n));
    putBytes(text, static_cast<std::int32_t>(n));
  }
};

// Guards the comparison: both sides must write the same bytes.
void checkSameBytes() {
  static bool checked = false;
  if (checked) return;
  checked = true;
  OrderValues v;
  LiteralRow row("ORDERS");
  fillOrderRow(row, v);
  bench::PluginUnderTest& p = bench::pluginUnderTest();
  ReplTransaction* t = static_cast<ReplTransaction*>(p.plugin->startTransaction(p.status, 1));
  t->insertRecord(p.status, nullptr, nullptr, &row);
  t->commit(p.status);
  const Bytes fromPlugin = readFile(t->getFileName());
  t->dispose();
  const std::string path = bench::scratchDirectory() + "hand.log";
  HandEncoder hand(path);
  hand.putBytes("ZEFO\x04", 5);
  hand.encode(v);
  hand.putByte(0x7B);
  hand.finish();
  if (readFile(path) != fromPlugin) {
    std::fprintf(stderr, "the hand encoder and insertRecord disagree\n");
    std::abort();
  }
  ::unlink(path.c_str());
  std::system(("rm -f " + bench::scratchDirectory() + "logs/*").c_str());
}

constexpr long kRecordsPerTransaction = 200000;

void InsertRecord(benchmark::State& state) {
  checkSameBytes();
  bench::PluginUnderTest& p = bench::pluginUnderTest();
  OrderValues v;
  LiteralRow row("ORDERS");
  fillOrderRow(row, v);
  Firebird::IReplTransaction* t = p.plugin->startTransaction(p.status, 2);
  long records = 0, inTransaction = 0;
  AllocationFaults::reset();
  for (auto _ : state) {
    t->insertRecord(p.status, nullptr, nullptr, &row);
    ++records;
    if (++inTransaction == kRecordsPerTransaction) {
      // A fresh log now and then keeps the scratch file small; the restart is not timed.
      state.PauseTiming();
      t->dispose();
      t = p.plugin->startTransaction(p.status, 2);
      inTransaction = 0;
      AllocationFaults::reset();
      records = 0;
      state.ResumeTiming();
    }
  }
  state.counters["allocations_per_record"] =
      records ? static_cast<double>(AllocationFaults::count()) / static_cast<double>(records) : 0;
  t->dispose();
  state.SetItemsProcessed(state.iterations());
}

void HandEncoderBench(benchmark::State& state) {
  const std::string path = bench::scratchDirectory() + "hand.log";
  OrderValues v;
  auto writer = std::make_unique<HandEncoder>(path);
  long inFile = 0;
  for (auto _ : state) {
    writer->encode(v);
    if (++inFile == kRecordsPerTransaction) {
      state.PauseTiming();
      writer.reset();
      ::unlink(path.c_str());
      writer = std::make_unique<HandEncoder>(path);
      inFile = 0;
      state.ResumeTiming();
    }
  }
  writer.reset();
  ::unlink(path.c_str());
  state.SetItemsProcessed(state.iterations());
}

// The two above, timed in turns: batches of inserts through the plugin and of the same records
// through the hand encoder, each into its own log.
void InsertRecordInTurnsWithHand(benchmark::State& state) {
  checkSameBytes();
  constexpr long kBatch = 20000;
  bench::PluginUnderTest& p = bench::pluginUnderTest();
  OrderValues v;
  LiteralRow row("ORDERS");
  fillOrderRow(row, v);
  const std::string path = bench::scratchDirectory() + "hand-turns.log";
  Firebird::IReplTransaction* t = p.plugin->startTransaction(p.status, 4);
  auto writer = std::make_unique<HandEncoder>(path);
  long inFile = 0;
  bench::InTurns turns;
  for (auto _ : state) {
    turns.round(
        [&] {
          for (long i = 0; i < kBatch; ++i) t->insertRecord(p.status, nullptr, nullptr, &row);
        },
        [&] {
          for (long i = 0; i < kBatch; ++i) writer->encode(v);
        });
    if ((inFile += kBatch) >= kRecordsPerTransaction) {
      // Fresh logs keep the scratch files small; the restart lies outside the timed turns.
      t->dispose();
      t = p.plugin->startTransaction(p.status, 4);
      writer.reset();
      ::unlink(path.c_str());
      writer = std::make_unique<HandEncoder>(path);
      inFile = 0;
    }
  }
  t->dispose();
  writer.reset();
  ::unlink(path.c_str());
  const double records = static_cast<double>(state.iterations()) * kBatch;
  state.counters["plugin_records_per_second"] = records / turns.firstSeconds();
  state.counters["hand_records_per_second"] = records / turns.secondSeconds();
}

// The server's side of the bargain: walking the row image with the calls the plugin makes for
// each field, and nothing else. The plugin cannot be faster than this.
void RowImageWalk(benchmark::State& state) {
  OrderValues v;
  LiteralRow row("ORDERS");
  fillOrderRow(row, v);
  Firebird::IReplRecord* record = &row;
  for (auto _ : state) {
    benchmark::DoNotOptimize(record->getName());
    for (Firebird::IReplField* f = record->getFields(); f->isValid(); f->moveNext()) {
      const std::uint32_t type = f->getType();
      benchmark::DoNotOptimize(f->getName());
      if (f->isNull()) continue;
      benchmark::DoNotOptimize(f->getData());
      benchmark::DoNotOptimize(type == 3 ? f->getCharSet() : f->getScale());
    }
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

namespace bench {

// For counting instructions under callgrind: exactly n inserts, nothing else timed.
void insertRecords(long n) {
  bench::PluginUnderTest& p = bench::pluginUnderTest();
  OrderValues v;
  LiteralRow row("ORDERS");
  fillOrderRow(row, v);
  Firebird::IReplTransaction* t = p.plugin->startTransaction(p.status, 3);
  for (long i = 0; i < n; ++i) t->insertRecord(p.status, nullptr, nullptr, &row);
  t->dispose();
}

// The same for the hand encoder.
void handEncodeRecords(long n) {
  const std::string path = bench::scratchDirectory() + "hand-count.log";
  OrderValues v;
  {
    HandEncoder writer(path);
    for (long i = 0; i < n; ++i) writer.encode(v);
  }
  ::unlink(path.c_str());
}

}  // namespace bench

BENCHMARK(InsertRecord);
BENCHMARK(HandEncoderBench)->Name("HandEncoder");
BENCHMARK(InsertRecordInTurnsWithHand)->UseRealTime()->MinTime(bench::pairSeconds());
BENCHMARK(RowImageWalk);
