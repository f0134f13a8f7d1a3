// CRC-32C by carry-less multiplication, for processors with VPCLMULQDQ: 512-bit registers where
// the processor has AVX-512, 256-bit ones where it has only AVX2. The only file with AVX-512 and
// AVX2 code generation, each confined to its function; the load-time check decides which runs.
//
// The running value is a polynomial remainder, so a 16-byte piece of input may be replaced by any
// polynomial congruent to it modulo P and moved forward: a piece followed by D more bytes
// contributes piece * x^(8D). Split into its first eight bytes L and its next eight H, that is
// L * x^(8D+64) + H * x^(8D), and each half times a 32-bit constant congruent to that power lands,
// as a 96-bit product, in the 16 bytes D further on, where it is XORed into the data. Four 512-bit
// registers fold 256 bytes per round (four 256-bit ones 128 bytes); at the end the registers are
// folded into one 16-byte piece, which the CRC32 instruction reduces to the running value.
//
// In the reflected bit order of this CRC, a carry-less product of two 64-bit operands stands one
// bit off from the 128-bit value it represents; that is the "-1" in the exponents below.
#include "Crc32c.h"

#if defined(FBCDC_HAVE_FOLD_CRC)

#include <immintrin.h>

#include <cstring>

namespace {

constexpr std::uint32_t kPolynomial = 0x1EDC6F41;

// x^e mod P, with bit i the coefficient of x^i.
constexpr std::uint32_t xPowerModP(int e) {
  std::uint32_t p = 1;
  for (int i = 0; i < e; ++i) p = (p & 0x80000000u) ? (p << 1) ^ kPolynomial : p << 1;
  return p;
}

constexpr std::uint32_t reflect(std::uint32_t v) {
  std::uint32_t r = 0;
  for (int i = 0; i < 32; ++i)
    if (v & (1u << i)) r |= 1u << (31 - i);
  return r;
}

// Multipliers that move a 16-byte piece forward over Distance bytes: the first for its first eight
// bytes, the second for the next eight. Computed by the compiler.
template <int Distance>
struct Multipliers {
  static constexpr std::uint64_t kFirstHalf = reflect(xPowerModP(8 * Distance + 31));
  static constexpr std::uint64_t kSecondHalf = reflect(xPowerModP(8 * Distance - 33));
};

// The 16-byte steps both widths end with; inlined into either.
#define FBCDC_PIECE_TARGET __attribute__((target("pclmul,sse4.2")))
#define FBCDC_FOLD_TARGET __attribute__((target("avx512f,avx512vl,vpclmulqdq,pclmul,sse4.2")))
#define FBCDC_FOLD256_TARGET __attribute__((target("avx2,vpclmulqdq,pclmul,sse4.2")))

template <int Distance>
FBCDC_PIECE_TARGET inline __m128i constants() {
  return _mm_set_epi64x(static_cast<long long>(Multipliers<Distance>::kSecondHalf),
                        static_cast<long long>(Multipliers<Distance>::kFirstHalf));
}

FBCDC_PIECE_TARGET inline __m128i fold(__m128i piece, __m128i k) {
  return _mm_xor_si128(_mm_clmulepi64_si128(piece, k, 0x00), _mm_clmulepi64_si128(piece, k, 0x11));
}

// Folds the rest's 16-byte pieces into v, reduces v with the CRC32 instruction (the last piece is
// sixteen bytes of input to a running value of zero), and takes the last bytes one by one.
FBCDC_PIECE_TARGET inline std::uint32_t finish(__m128i v, const std::uint8_t* data,
                                               std::int32_t rest) {
  const __m128i k16 = constants<16>();
  for (; rest >= 16; rest -= 16, data += 16)
    v = _mm_xor_si128(fold(v, k16), _mm_loadu_si128(reinterpret_cast<const __m128i*>(data)));
  std::uint64_t c = _mm_crc32_u64(0, static_cast<std::uint64_t>(_mm_cvtsi128_si64(v)));
  c = _mm_crc32_u64(c, static_cast<std::uint64_t>(_mm_extract_epi64(v, 1)));
  for (; rest >= 8; rest -= 8, data += 8) {
    std::uint64_t word;
    std::memcpy(&word, data, 8);
    c = _mm_crc32_u64(c, word);
  }
  std::uint32_t c32 = static_cast<std::uint32_t>(c);
  for (; rest > 0; --rest, ++data) c32 = _mm_crc32_u8(c32, *data);
  return c32;
}

FBCDC_FOLD_TARGET inline __m512i fold(__m512i pieces, __m512i k) {
  return _mm512_xor_si512(_mm512_clmulepi64_epi128(pieces, k, 0x00),
                          _mm512_clmulepi64_epi128(pieces, k, 0x11));
}

// fold(pieces, k) ^ next in one three-way XOR.
FBCDC_FOLD_TARGET inline __m512i foldInto(__m512i pieces, __m512i k, const std::uint8_t* next) {
  return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(pieces, k, 0x00),
                                   _mm512_clmulepi64_epi128(pieces, k, 0x11),
                                   _mm512_loadu_si512(next), 0x96);
}

FBCDC_FOLD256_TARGET inline __m256i fold(__m256i pieces, __m256i k) {
  return _mm256_xor_si256(_mm256_clmulepi64_epi128(pieces, k, 0x00),
                          _mm256_clmulepi64_epi128(pieces, k, 0x11));
}

FBCDC_FOLD256_TARGET inline __m256i load(const std::uint8_t* p) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

FBCDC_FOLD256_TARGET inline __m256i foldInto(__m256i pieces, __m256i k, const std::uint8_t* next) {
  return _mm256_xor_si256(fold(pieces, k), load(next));
}

}  // namespace

FBCDC_FOLD_TARGET void crc32cUpdateFold(std::uint32_t& running, const std::uint8_t* data,
                                        std::int32_t length) {
  const __m512i k256 = _mm512_maskz_broadcast_i32x4(0xFFFF, constants<256>());
  const __m512i k64 = _mm512_maskz_broadcast_i32x4(0xFFFF, constants<64>());

  // The running value enters as the XOR of the first four bytes.
  __m512i x0 = _mm512_xor_si512(
      _mm512_loadu_si512(data),
      _mm512_inserti32x4(_mm512_setzero_si512(), _mm_cvtsi32_si128(static_cast<int>(running)), 0));
  __m512i x1 = _mm512_loadu_si512(data + 64);
  __m512i x2 = _mm512_loadu_si512(data + 128);
  __m512i x3 = _mm512_loadu_si512(data + 192);
  data += 256;
  std::int32_t rest = length - 256;
  for (; rest >= 256; rest -= 256, data += 256) {
    x0 = foldInto(x0, k256, data);
    x1 = foldInto(x1, k256, data + 64);
    x2 = foldInto(x2, k256, data + 128);
    x3 = foldInto(x3, k256, data + 192);
  }
  x1 = _mm512_xor_si512(x1, fold(x0, k64));
  x2 = _mm512_xor_si512(x2, fold(x1, k64));
  x3 = _mm512_xor_si512(x3, fold(x2, k64));
  // What is left goes 64 bytes at a time while it can: one chain, but four times the bytes of a
  // 16-byte fold per step.
  for (; rest >= 64; rest -= 64, data += 64) x3 = foldInto(x3, k64, data);

  __m128i v = _mm_xor_si128(_mm512_maskz_extracti32x4_epi32(0xF, x3, 3),
                            fold(_mm512_maskz_extracti32x4_epi32(0xF, x3, 0), constants<48>()));
  v = _mm_xor_si128(v, fold(_mm512_maskz_extracti32x4_epi32(0xF, x3, 1), constants<32>()));
  v = _mm_xor_si128(v, fold(_mm512_maskz_extracti32x4_epi32(0xF, x3, 2), constants<16>()));
  running = finish(v, data, rest);
}

FBCDC_FOLD256_TARGET void crc32cUpdateFold256(std::uint32_t& running, const std::uint8_t* data,
                                              std::int32_t length) {
  const __m256i k128 = _mm256_broadcastsi128_si256(constants<128>());
  const __m256i k32 = _mm256_broadcastsi128_si256(constants<32>());

  __m256i x0 = _mm256_xor_si256(
      load(data), _mm256_inserti128_si256(_mm256_setzero_si256(),
                                          _mm_cvtsi32_si128(static_cast<int>(running)), 0));
  __m256i x1 = load(data + 32);
  __m256i x2 = load(data + 64);
  __m256i x3 = load(data + 96);
  data += 128;
  std::int32_t rest = length - 128;
  for (; rest >= 128; rest -= 128, data += 128) {
    x0 = foldInto(x0, k128, data);
    x1 = foldInto(x1, k128, data + 32);
    x2 = foldInto(x2, k128, data + 64);
    x3 = foldInto(x3, k128, data + 96);
  }
  x1 = _mm256_xor_si256(x1, fold(x0, k32));
  x2 = _mm256_xor_si256(x2, fold(x1, k32));
  x3 = _mm256_xor_si256(x3, fold(x2, k32));
  for (; rest >= 32; rest -= 32, data += 32) x3 = foldInto(x3, k32, data);

  const __m128i v = _mm_xor_si128(_mm256_extracti128_si256(x3, 1),
                                  fold(_mm256_extracti128_si256(x3, 0), constants<16>()));
  running = finish(v, data, rest);
}

#endif
