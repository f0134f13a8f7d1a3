// A large blob recorded through insertRecord, read from a real embedded database, against reading
// the same blob with getSegment alone and writing nothing.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "BenchSupport.h"
#include "EmbeddedDatabase.h"
#include "IReplPlugin.h"
#include "IReplTransaction.h"
#include "LiteralRow.h"
#include "TestFiles.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

struct BlobDatabase {
  std::unique_ptr<EmbeddedDatabase> db;
  ISC_QUAD id{};
  FbStatus status;
  Firebird::IReplPlugin* plugin = nullptr;

  BlobDatabase() {
    db = std::make_unique<EmbeddedDatabase>(bench::scratchDirectory() + "blob.fdb");
    Bytes data(static_cast<std::size_t>(bench::blobBytes()));
    std::mt19937 random(5);
    for (auto& b : data) b = static_cast<std::uint8_t>(random());
    id = db->createBlob(data, true);
    const std::string config = bench::scratchDirectory() + "blob.conf";
    writeFile(config, "OutputDirectory = " + bench::scratchDirectory() + "bloblogs\n");
    Firebird::IConfig* c = loadConfig(config);
    plugin = getReplPlugin(status, 30, c);
    c->release();
    if (!plugin) std::abort();
  }
  ~BlobDatabase() { plugin->dispose(); }
};

BlobDatabase& blobDatabase() {
  static BlobDatabase d;
  return d;
}

void BlobGetSegmentOnly(benchmark::State& state) {
  BlobDatabase& d = blobDatabase();
  std::vector<unsigned char> piece(65535);
  FbStatus st;
  Firebird::CheckStatusWrapper w(st);
  for (auto _ : state) {
    Firebird::IBlob* blob =
        d.db->attachment()->openBlob(&w, d.db->transaction(), &d.id, 0, nullptr);
    unsigned n = 0;
    while (blob->getSegment(&w, 65535, piece.data(), &n) != Firebird::IStatus::RESULT_NO_DATA) {
      if (st.hasErrors()) {
        state.SkipWithError("getSegment failed");
        break;
      }
      benchmark::DoNotOptimize(piece.data());
    }
    blob->close(&w);
  }
  state.SetBytesProcessed(state.iterations() * bench::blobBytes());
}

void BlobThroughPlugin(benchmark::State& state) {
  BlobDatabase& d = blobDatabase();
  LiteralRow row("BLOBS");
  row.addBlob("CONTENT", d.id);
  long growth = 0;
  for (auto _ : state) {
    Firebird::IReplTransaction* t = d.plugin->startTransaction(d.status, 9);
    const long before = bench::residentKiB();
    if (t->insertRecord(d.status, d.db->attachment(), d.db->transaction(), &row) != 0)
      state.SkipWithError("insertRecord failed");
    const long after = bench::residentKiB();
    if (after - before > growth) growth = after - before;
    t->dispose();  // not committed: the file is removed
  }
  state.SetBytesProcessed(state.iterations() * bench::blobBytes());
  state.counters["rss_growth_KiB"] = static_cast<double>(growth);
}

}  // namespace

// The plain reads run first and warm the engine's page cache for both.
BENCHMARK(BlobGetSegmentOnly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BlobThroughPlugin)->Unit(benchmark::kMillisecond)->UseRealTime();
