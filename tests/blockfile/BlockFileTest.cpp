// CRC-32C: the published check values, and every implementation this processor runs against the
// bit-by-bit reference over every length, alignment and lane edge. The block writer and reader: the
// container on disk byte for byte, every value at every offset around a block edge, positions,
// skips and seeks, and odd files. (Rewinds into blocks on disk: LogDecoderTest's random savepoints
// and ReplTransactionTest; every failing call: FaultSweepTest.)
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <tuple>

#include "Crc32c.h"
#include "PosixFaults.h"
#include "TReadFile.h"
#include "TWriteFile.h"
#include "TestFiles.h"

namespace {

// The writer as its owner sees it: the owner names the file.
class Writer : public TWriteFile {
 public:
  explicit Writer(const std::string& path) {
    std::snprintf(fileName, sizeof fileName, "%s", path.c_str());
  }
};

class BlockFileTest : public ::testing::Test {
 protected:
  // Writes stream as a log with the library's writer.
  std::string writeLog(const Bytes& stream) {
    Writer w(path);
    w.putBytes(stream.data(), static_cast<std::int32_t>(stream.size()));
    w.flushBlock();
    return path;
  }

  PosixFaults::Scope faults;
  TempDir dir;
  std::string path = dir / "log";
};

using TWriteFileTest = BlockFileTest;
using TReadFileTest = BlockFileTest;

// Every put at every offset around a block edge, and a run over a whole block: the file is the
// container of the little-endian stream, each block written in one write by the put that fills it,
// and the reader gets each value back at the writer's positions.
TEST_F(TWriteFileTest, ValuesAtEveryOffsetAroundTheBlockEdge) {
  const double d = -0.1;
  const std::uint64_t doubleBits = 0xBFB999999999999A;
  const Bytes run = randomBytes(32764 + 32730, 1);  // the last stream ends with its block
  for (std::size_t before = 32764 - 34; before <= 32764; ++before) {
    SCOPED_TRACE(before);
    ::remove(path.c_str());
    PosixFaults::reset();
    Bytes model = randomBytes(before, static_cast<unsigned>(before));
    auto le = [&](std::uint64_t v, int n) {
      for (int i = 0; i < n; ++i) model.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    };
    Writer w(path);
    w.putBytes(model.data(), static_cast<std::int32_t>(before));
    const std::function<void()> puts[] = {
        [&] { w.putByte(0xAB), le(0xAB, 1); },
        [&] { w.putInt16(0xA1B2), le(0xA1B2, 2); },
        [&] { w.putInt32(0xC1D2E3F4), le(0xC1D2E3F4, 4); },
        [&] { w.putInt64(0x0102030405060708), le(0x0102030405060708, 8); },
        [&] { w.putDouble(d), le(doubleBits, 8); },
        [&] { w.putInt32Pair(7, 0xF1F2F3F4), le(7, 4), le(0xF1F2F3F4, 4); },
        [&] { w.putBytes("abc", 3), le(0x636261, 3); },
        [&] { w.putBytes("abc", 0), w.putBytes("abc", -1); },
        [&] {
          w.putBytes(run.data(), static_cast<std::int32_t>(run.size()));
          model.insert(model.end(), run.begin(), run.end());
        },
    };
    std::vector<std::int64_t> positions;
    for (const auto& put : puts) {
      put();
      positions.push_back(w.getPosition());
      // Every block before the position adds its 4-byte trailer.
      EXPECT_EQ(static_cast<std::int64_t>(model.size() / 32764 * 32768 + model.size() % 32764),
                positions.back());
      const Bytes full(model.begin(), model.begin() + model.size() / 32764 * 32764);
      EXPECT_EQ(containerOf(full), fileExists(path) ? readFile(path) : Bytes{});
    }
    // Once the last block is written, the end of the stream is the end of the file for both.
    const std::int64_t end = positions.back();
    w.flushBlock();
    EXPECT_EQ(containerOf(model), readFile(path));
    EXPECT_EQ(static_cast<int>(model.size() + 32763) / 32764,
              PosixFaults::calls(PosixFaults::kWrite));
    for (std::int64_t& p : positions) p = p == end ? w.getPosition() : p;
    EXPECT_EQ(static_cast<std::int64_t>(containerOf(model).size()), positions.back());

    TReadFile r;
    r.open(path.c_str(), true);
    r.skip(static_cast<std::uint32_t>(before));
    std::size_t k = 0;
    auto expect = [&](std::uint64_t expected, std::uint64_t got) {
      EXPECT_EQ(expected, got) << "value " << k;
      EXPECT_EQ(positions[k++], r.getPosition());
    };
    expect(0xAB, r.getByte());
    expect(0xA1B2, r.getInt16());
    expect(0xC1D2E3F4, r.getInt32());
    expect(0x0102030405060708, r.getInt64());
    expect(doubleBits, r.getDouble() == d ? doubleBits : 0);
    TReadFile::Int32Pair pair{};
    r.getInt32Pair(pair);
    expect(0xF1F2F3F4'00000007, std::uint64_t{pair.second} << 32 | pair.first);
    char abc[4] = {};
    r.getBytes(abc, 3);
    expect(0x636261, abc[0] | abc[1] << 8 | abc[2] << 16);
    ++k;  // the empty puts
    Bytes runBack(run.size());
    r.getBytes(runBack.data(), static_cast<std::int32_t>(runBack.size()));
    expect(1, runBack == run);
  }
}

// Reading on from anywhere, step by step: each step's outcome (the byte, or the CRC-32C of the
// bytes, or the failure; the position; the reads and seeks it made) is a line of golden/reader.txt.
// Runs across blocks, skips over whole blocks (each one read and verified) and to the end of a
// block's data (no block loaded past it), seeks within the loaded block (no file operation) and to
// other blocks, the end of a log that ends with a full block; without CRC checking every byte,
// trailers included (a damaged or cut block: TReadFileFuzz, and dump and verify's wording:
// FbcdcCommandTest); a directory, a missing file, a reader never opened, and a sparse file of
// 5 GiB: seek takes 64-bit positions.
TEST_F(TReadFileTest, StepByStep) {
  const Bytes file = readFile(writeLog(randomBytes(5 * 32764, 11)));  // ends with a full block
  ::mkdir((dir / "directory").c_str(), 0700);
  const std::int64_t far = (std::int64_t{5} << 30) + 3 * 32768;
  FILE* f = std::fopen((dir / "sparse").c_str(), "wb");  // only the last block is written
  fseeko(f, far, SEEK_SET);
  std::fwrite(file.data(), 1, 32768, f);
  std::fclose(f);
  // Each step: "open" a file with CRC checking or "raw" without, "new" a reader never opened, or an
  // operation and its argument. From the log's start, 65531 skips two blocks' data and 3 bytes
  // more, 163720 from 100 is the end of the log's data; 5368808424 is 1000 into the sparse block.
  std::istringstream steps(
      "open log, bytes 0, bytes -3, bytes 70000, skip 65531, byte -, seek 100, skip 163720, "
      "byte -, seek 100, byte -, seek 5, byte -, seek 65553, byte -, seek 32768, byte -, "
      "seek 163840, seek -1, raw log, bytes 163840, byte -, open directory, byte -, "
      "open missing, byte -, new -, seek 40000, byte -, open sparse, seek 5368808424, byte -");
  std::unique_ptr<TReadFile> r;
  std::string text, op, arg;
  while (steps >> op >> arg) {
    arg.erase(arg.find_last_not_of(',') + 1);
    const std::int64_t n = std::atoll(arg.c_str());
    PosixFaults::reset();
    Bytes data(std::max<std::int64_t>(n, 0) + 1, 0x55);  // one byte more, which stays 55
    std::string failure = failureOf([&] {
      if (op == "new" || op == "open" || op == "raw") r = std::make_unique<TReadFile>();
      if (op == "open" || op == "raw") r->open((dir / arg).c_str(), op == "open");
      if (op == "bytes") r->getBytes(data.data(), static_cast<std::int32_t>(n));
      if (op == "byte") data[0] = r->getByte();
      if (op == "skip") r->skip(static_cast<std::uint32_t>(n));
      if (op == "seek") r->seek(n);
    });
    if (failure.find(dir.path()) != std::string::npos)
      failure.replace(failure.find(dir.path()), dir.path().size(), "$/");
    text += op + " " + arg + ": " + failure;
    if (failure.empty() && op == "byte") text += hex({data[0]});
    if (failure.empty() && op == "bytes")
      text += "CRC-32C " + std::to_string(slowCrc32c(data.data(), data.size() - 1)) + ", then " +
              hex({data.back()});
    text += ", position " + std::to_string(r->getPosition()) + ", " +
            std::to_string(PosixFaults::calls(PosixFaults::kRead)) + " reads, " +
            std::to_string(PosixFaults::calls(PosixFaults::kLseek64)) + " seeks\n";
  }
  expectGolden("blockfile/golden/reader.txt", text);
}

// Chooses the fold of one implementation (kLoaded: the one the load chose, 0: none, 256 or 512
// bits) and restores the load's choice.
constexpr int kLoaded = -1;
struct FoldSwitch {
#if defined(FBCDC_HAVE_FOLD_CRC)
  explicit FoldSwitch(int width) : saved(crc32cUseFold), saved256(crc32cUseFold256) {
    if (width == kLoaded) return;
    crc32cUseFold = width == 512;
    crc32cUseFold256 = width == 256;
  }
  ~FoldSwitch() {
    crc32cUseFold = saved;
    crc32cUseFold256 = saved256;
  }
  bool saved, saved256;
#else
  explicit FoldSwitch(int) {}
#endif
};

// The reference that the other tests judge by gives the check value of "123456789" and those of
// RFC 3720 (B.4); every implementation this processor runs (dispatched, table, SSE4.2 lanes, and
// with them the 256-bit and 512-bit folds) gives the reference's CRC for every length to 1024 and
// around the lane edges at 16 alignments, and continues from any running value as the table does
// (a buffer folds in pieces).
TEST(Crc32c, ImplementationsAgreeWithTheReferenceOnEveryLengthAndAlignment) {
  Bytes up(32), down(32);
  for (int i = 0; i < 32; ++i) up[i] = down[31 - i] = static_cast<std::uint8_t>(i);
  const std::pair<Bytes, std::uint32_t> known[] = {
      {{}, 0x00000000},        {bytesOf("123456789"), 0xE3069283},
      {Bytes(32), 0x8A9136AA}, {Bytes(32, 0xFF), 0x62A8AB43},
      {up, 0x46DD794E},        {down, 0x113FDB5C}};
  for (const auto& [data, crc] : known) EXPECT_EQ(crc, slowCrc32c(data.data(), data.size()));

  struct Variant {
    const char* name;
    Crc32cUpdateFunction update;
    int fold;  // the fold it runs with
  };
  std::vector<Variant> variants = {{"dispatched", crc32cUpdate, kLoaded},
                                   {"table", crc32cUpdateTable, kLoaded}};
#if defined(FBCDC_HAVE_SSE42_CRC)
  if (crc32cHasSse42()) variants.push_back({"sse4.2 lanes", crc32cUpdateSse42, 0});
#endif
#if defined(FBCDC_HAVE_FOLD_CRC)
  if (crc32cHasSse42() && crc32cHasFold256())
    variants.push_back({"sse4.2 with 256-bit fold", crc32cUpdateSse42, 256});
  if (crc32cHasSse42() && crc32cHasFold())
    variants.push_back({"sse4.2 with 512-bit fold", crc32cUpdateSse42, 512});
#endif
  if (variants.size() < 5) std::printf("note: this processor runs %zu variants\n", variants.size());

  std::mt19937 random(20261123);
  const Bytes data = randomBytes(3 * 32768 + 64, 20261123);
  std::vector<int> lengths = {32764, 98000, 3 * 32768};
  for (int length = 0; length <= 1024; ++length) lengths.push_back(length);
  for (int edge : {768, 3 * 10920, 2 * 3 * 10920})
    for (int d = -9; d <= 9; ++d) lengths.push_back(edge + d);
  std::vector<std::tuple<int, int, std::uint32_t>> runs;  // alignment, length, reference's CRC
  for (int align = 0; align < 16; ++align)
    for (int length : lengths)
      runs.push_back({align, length, slowCrc32c(data.data() + align, length)});
  for (const Variant& variant : variants) {
    FoldSwitch use(variant.fold);
    for (const auto& [align, length, expected] : runs) {
      const std::uint8_t* start = data.data() + align;
      const std::uint32_t seed = static_cast<std::uint32_t>(random());
      std::uint32_t fresh = 0xFFFFFFFF, fromSeed = seed, reference = seed;
      variant.update(fresh, start, length);
      variant.update(fromSeed, start, length);
      crc32cUpdateTable(reference, start, length);
      ASSERT_EQ(expected, ~fresh) << variant.name << " at " << align << ", " << length;
      ASSERT_EQ(reference, fromSeed) << variant.name << " at " << align << ", " << length;
    }
  }
}

}  // namespace
