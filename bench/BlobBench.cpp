// A large blob recorded through insertRecord, read from a real embedded database, against the
// least work the same bytes need on their way into a log: read with getSegment, copied into blocks
// that are closed by their CRC and written; and against reading it with getSegment alone.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "BenchSupport.h"
#include "BlockFormat.h"
#include "Crc32c.h"
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

// The blob path's own limit: the same reads, each piece copied into 32 KiB blocks, each block's
// CRC stored behind its data and the block written in one call; the file made and removed in each
// round, as the plugin's transaction makes and removes its log.
void BlobSerialLimit(benchmark::State& state) {
  BlobDatabase& d = blobDatabase();
  std::vector<unsigned char> piece(65535);
  alignas(64) static std::uint8_t block[BlockFormat::kBlockSize];
  constexpr std::size_t kData = BlockFormat::kBlockSize - 4;
  const std::string path = bench::scratchDirectory() + "bloblimit.log";
  FbStatus st;
  Firebird::CheckStatusWrapper w(st);
  auto flush = [&](int fd, std::size_t fill) {
    BlockFormat::storeLe32(block + fill, crc32c(block, static_cast<std::int32_t>(fill)));
    if (::write(fd, block, fill + 4) != static_cast<ssize_t>(fill + 4))
      state.SkipWithError("write failed");
  };
  for (auto _ : state) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0660);
    std::size_t fill = 0;
    Firebird::IBlob* blob =
        d.db->attachment()->openBlob(&w, d.db->transaction(), &d.id, 0, nullptr);
    unsigned n = 0;
    while (blob->getSegment(&w, 65535, piece.data(), &n) != Firebird::IStatus::RESULT_NO_DATA) {
      if (st.hasErrors()) {
        state.SkipWithError("getSegment failed");
        break;
      }
      for (std::size_t at = 0; at < n;) {
        const std::size_t take = std::min<std::size_t>(n - at, kData - fill);
        std::memcpy(block + fill, piece.data() + at, take);
        fill += take;
        at += take;
        if (fill == kData) {
          flush(fd, fill);
          fill = 0;
        }
      }
    }
    blob->close(&w);
    if (fill > 0) flush(fd, fill);
    ::close(fd);
    ::unlink(path.c_str());
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
BENCHMARK(BlobSerialLimit)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BlobThroughPlugin)->Unit(benchmark::kMillisecond)->UseRealTime();
