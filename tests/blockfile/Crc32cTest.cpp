// CRC-32C: the published check values, and every implementation this processor runs against the
// bit-by-bit reference over every length, alignment and lane edge.
#include "Crc32c.h"

#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "TestFiles.h"

namespace {

// The check value of "123456789" and those of RFC 3720 (B.4), for the library and for the
// reference that the other tests judge the writer's trailers by.
TEST(Crc32c, KnownValues) {
  Bytes up(32), down(32);
  for (int i = 0; i < 32; ++i) up[i] = down[31 - i] = static_cast<std::uint8_t>(i);
  const std::pair<Bytes, std::uint32_t> cases[] = {
      {{}, 0x00000000},        {bytesOf("123456789"), 0xE3069283},
      {Bytes(32), 0x8A9136AA}, {Bytes(32, 0xFF), 0x62A8AB43},
      {up, 0x46DD794E},        {down, 0x113FDB5C}};
  for (const auto& [data, crc] : cases) {
    SCOPED_TRACE(hex(data));
    EXPECT_EQ(crc, crc32c(data.data(), static_cast<std::int32_t>(data.size())));
    EXPECT_EQ(crc, slowCrc32c(data.data(), data.size()));
  }
}

// Sets crc32cUseFold for one implementation and restores what the load chose.
struct FoldSwitch {
#if defined(FBCDC_HAVE_FOLD_CRC)
  explicit FoldSwitch(bool fold) : saved(crc32cUseFold) { crc32cUseFold = fold && saved; }
  ~FoldSwitch() { crc32cUseFold = saved; }
  bool saved;
#else
  explicit FoldSwitch(bool) {}
#endif
};

// Every implementation this processor runs (dispatched, table, SSE4.2 lanes with and without the
// fold) gives the reference's CRC for every length to 1024 and around the lane edges at 16
// alignments, and continues from any running value as the table does (a buffer folds in pieces).
TEST(Crc32c, ImplementationsAgreeOnEveryLengthAndAlignment) {
  struct Variant {
    const char* name;
    Crc32cUpdateFunction update;
    bool fold;  // the value crc32cUseFold takes while it runs
  };
  std::vector<Variant> variants = {{"dispatched", crc32cUpdate, true},
                                   {"table", crc32cUpdateTable, true}};
#if defined(FBCDC_HAVE_SSE42_CRC)
  if (crc32cHasSse42()) variants.push_back({"sse4.2 lanes", crc32cUpdateSse42, false});
#endif
#if defined(FBCDC_HAVE_FOLD_CRC)
  if (crc32cHasFold()) variants.push_back({"sse4.2 with fold", crc32cUpdateSse42, true});
#endif
  if (variants.size() < 4) std::printf("note: this processor runs %zu variants\n", variants.size());

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
