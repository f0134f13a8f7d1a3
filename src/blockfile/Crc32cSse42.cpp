// The only file built with SSE4.2 code generation, so that no instruction the processor may lack
// leaks into code that runs without the load-time check.
//
// The CRC32 instruction takes three cycles to deliver its result but can start one every cycle, so
// one chain of instructions uses a third of the processor's capacity. Long inputs are therefore
// cut into three lanes that are folded side by side, each from its own running value, and joined
// afterwards: the value of lane A followed by lane B is A's value shifted over B's length, XOR
// B's value folded from zero. The result is bit for bit that of the table implementation.
#include "Crc32c.h"

#if defined(FBCDC_HAVE_SSE42_CRC)

#include <nmmintrin.h>

#include <cstring>

namespace {

inline std::uint32_t shift(const std::uint32_t (&table)[4][256], std::uint32_t c) {
  return table[0][c & 0xFF] ^ table[1][(c >> 8) & 0xFF] ^ table[2][(c >> 16) & 0xFF] ^
         table[3][c >> 24];
}

#if defined(__x86_64__)
inline std::uint64_t load64(const std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

// Folds three lanes of lane bytes each, starting at p, into c; returns the end of the third lane.
template <std::int32_t lane>
inline const std::uint8_t* foldThreeLanes(std::uint32_t& c, const std::uint8_t* p,
                                          const std::uint32_t (&table)[4][256]) {
  static_assert(lane % 8 == 0, "lanes are folded eight bytes at a time");
  std::uint64_t c0 = c, c1 = 0, c2 = 0;
  const std::uint8_t* const stop = p + lane;
  for (; p < stop; p += 8) {
    c0 = _mm_crc32_u64(c0, load64(p));
    c1 = _mm_crc32_u64(c1, load64(p + lane));
    c2 = _mm_crc32_u64(c2, load64(p + 2 * lane));
  }
  std::uint32_t joined =
      shift(table, static_cast<std::uint32_t>(c0)) ^ static_cast<std::uint32_t>(c1);
  c = shift(table, joined) ^ static_cast<std::uint32_t>(c2);
  return p + 2 * lane;
}
#endif

}  // namespace

void crc32cUpdateSse42(std::uint32_t& running, const std::uint8_t* data, std::int32_t length) {
#if defined(FBCDC_HAVE_FOLD_CRC)
  if (length >= kCrc32cFoldMinimum && (crc32cUseFold || crc32cUseFold256)) {
    (crc32cUseFold ? crc32cUpdateFold : crc32cUpdateFold256)(running, data, length);
    return;
  }
#endif
  std::uint32_t c = running;
  std::int32_t rest = length;
#if defined(__x86_64__)
  while (rest >= 3 * kCrc32cLongLane) {
    data = foldThreeLanes<kCrc32cLongLane>(c, data, crc32cLongShift);
    rest -= 3 * kCrc32cLongLane;
  }
  while (rest >= 3 * kCrc32cShortLane) {
    data = foldThreeLanes<kCrc32cShortLane>(c, data, crc32cShortShift);
    rest -= 3 * kCrc32cShortLane;
  }
  std::uint64_t wide = c;
  for (; rest >= 8; rest -= 8, data += 8) wide = _mm_crc32_u64(wide, load64(data));
  c = static_cast<std::uint32_t>(wide);
#endif
  // Then four bytes per step, unaligned, in memory order (the reflected CRC's order on a
  // little-endian machine); then two bytes and one.
  for (; rest >= 4; rest -= 4, data += 4) {
    std::uint32_t word;
    std::memcpy(&word, data, 4);
    c = _mm_crc32_u32(c, word);
  }
  if (rest >= 2) {
    std::uint16_t half;
    std::memcpy(&half, data, 2);
    c = _mm_crc32_u16(c, half);
    data += 2;
    rest -= 2;
  }
  if (rest == 1) c = _mm_crc32_u8(c, *data);
  running = c;
}

#endif
