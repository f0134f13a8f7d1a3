#include "Crc32c.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "TestFiles.h"

namespace {

struct KnownValue {
  const char* name;
  std::vector<std::uint8_t> data;
  std::uint32_t crc;
};

std::vector<std::uint8_t> filled(std::size_t n, std::uint8_t value) {
  return std::vector<std::uint8_t>(n, value);
}

std::vector<std::uint8_t> counting(std::size_t n, bool down) {
  std::vector<std::uint8_t> v(n);
  for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<std::uint8_t>(down ? n - 1 - i : i);
  return v;
}

TEST(Crc32c, KnownValues) {
  const std::string digits = "123456789";
  const KnownValue cases[] = {
      {"empty", {}, 0x00000000},
      {"digits 1 to 9", std::vector<std::uint8_t>(digits.begin(), digits.end()), 0xE3069283},
      {"32 zero bytes", filled(32, 0x00), 0x8A9136AA},
      {"32 bytes 0xFF", filled(32, 0xFF), 0x62A8AB43},
      {"00 to 1F", counting(32, false), 0x46DD794E},
      {"1F to 00", counting(32, true), 0x113FDB5C},
  };
  for (const KnownValue& c : cases) {
    SCOPED_TRACE(c.name);
    const auto length = static_cast<std::int32_t>(c.data.size());
    EXPECT_EQ(c.crc, crc32c(c.data.data(), length));
    std::uint32_t running = 0xFFFFFFFF;
    crc32cUpdateTable(running, c.data.data(), length);
    EXPECT_EQ(c.crc, ~running);
  }
}

TEST(Crc32c, TableIsBuiltAtLoad) {
  EXPECT_EQ(0x00000000u, crc32cTable[0]);
  EXPECT_EQ(0xF26B8303u, crc32cTable[1]);
  EXPECT_EQ(0x82F63B78u, crc32cTable[128]);
  EXPECT_EQ(0xAD7D5351u, crc32cTable[255]);
}

TEST(Crc32c, SelectionFollowsCpuid) {
#if defined(FBCDC_HAVE_SSE42_CRC)
  EXPECT_EQ(crc32cHasSse42() ? &crc32cUpdateSse42 : &crc32cUpdateTable, crc32cUpdate);
#else
  EXPECT_EQ(&crc32cUpdateTable, crc32cUpdate);
#endif
}

// Every implementation this processor can run: the dispatched entry, the table, the SSE4.2 path
// with its three interleaved lanes, and the carry-less fold. The SSE4.2 path hands long inputs to
// the fold when the processor has it, so it also runs once with the fold switched off.
struct Variant {
  const char* name;
  Crc32cUpdateFunction update;
  bool fold;  // the value crc32cUseFold takes while it runs
};

std::vector<Variant> variants() {
  std::vector<Variant> v = {{"dispatched", crc32cUpdate, true}, {"table", crc32cUpdateTable, true}};
#if defined(FBCDC_HAVE_SSE42_CRC)
  if (crc32cHasSse42()) v.push_back({"sse4.2 lanes", crc32cUpdateSse42, false});
#endif
#if defined(FBCDC_HAVE_FOLD_CRC)
  if (crc32cHasFold()) v.push_back({"sse4.2 with fold", crc32cUpdateSse42, true});
#endif
  if (v.size() < 4) std::printf("note: this processor runs only %zu of the variants\n", v.size());
  return v;
}

// Sets crc32cUseFold for one variant and restores what the load chose.
struct FoldSwitch {
#if defined(FBCDC_HAVE_FOLD_CRC)
  explicit FoldSwitch(bool fold) : saved(crc32cUseFold) { crc32cUseFold = fold && saved; }
  ~FoldSwitch() { crc32cUseFold = saved; }
  bool saved;
#else
  explicit FoldSwitch(bool) {}
#endif
};

// Every variant folds every length from every start address alike, from any running value; a zero
// length leaves the running value alone.
TEST(Crc32c, ImplementationsAgreeOnEveryLengthAndAlignment) {
  const std::vector<Variant> updates = variants();

  std::mt19937 random(20261123);
  std::vector<std::uint8_t> data(1100);
  for (auto& b : data) b = static_cast<std::uint8_t>(random());

  for (int align = 0; align < 16; ++align) {
    for (int length = 0; length <= 1024; ++length) {
      const std::uint8_t* start = data.data() + align;
      const std::uint32_t seed = static_cast<std::uint32_t>(random());
      const std::uint32_t expected = ~slowCrc32c(start, length);
      for (const Variant& variant : updates) {
        FoldSwitch use(variant.fold);
        std::uint32_t running = 0xFFFFFFFF;
        variant.update(running, start, length);
        ASSERT_EQ(expected, running) << variant.name << " align " << align << " length " << length;
        std::uint32_t fromSeed = seed;
        std::uint32_t reference = seed;
        variant.update(fromSeed, start, length);
        crc32cUpdateTable(reference, start, length);
        ASSERT_EQ(reference, fromSeed)
            << variant.name << " align " << align << " length " << length;
      }
    }
  }
}

// Long inputs go through the interleaved lanes; lengths around the lane edges and a whole block.
TEST(Crc32c, ImplementationsAgreeOnLongInputs) {
  std::mt19937 random(7);
  std::vector<std::uint8_t> data(3 * 32768 + 64);
  for (auto& b : data) b = static_cast<std::uint8_t>(random());
  std::vector<int> lengths = {32764, 98000, 3 * 32768};
  for (int edge : {768, 3 * 10920, 2 * 3 * 10920})
    for (int d = -9; d <= 9; ++d) lengths.push_back(edge + d);
  for (const Variant& variant : variants()) {
    FoldSwitch use(variant.fold);
    for (int align = 0; align < 8; ++align) {
      for (int length : lengths) {
        std::uint32_t expected = 0x12345678, got = 0x12345678;
        crc32cUpdateTable(expected, data.data() + align, length);
        variant.update(got, data.data() + align, length);
        ASSERT_EQ(expected, got) << variant.name << " align " << align << " length " << length;
      }
    }
  }
}

// Folding a buffer in two pieces at any split point gives the CRC of the whole.
TEST(Crc32c, SplitsComposeToTheWhole) {
  std::vector<std::uint8_t> data = counting(200, false);
  const std::uint32_t whole = crc32c(data.data(), 200);
  for (int split = 0; split <= 200; ++split) {
    std::uint32_t running = 0xFFFFFFFF;
    crc32cUpdate(running, data.data(), split);
    crc32cUpdate(running, data.data() + split, 200 - split);
    ASSERT_EQ(whole, ~running) << "split " << split;
  }
}

}  // namespace
