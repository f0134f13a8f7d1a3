#include "Crc32c.h"

#if defined(FBCDC_HAVE_SSE42_CRC)
#include <cpuid.h>
#endif

std::uint32_t crc32cTable[256];
std::uint32_t crc32cLongShift[4][256];
std::uint32_t crc32cShortShift[4][256];
Crc32cUpdateFunction crc32cUpdate = crc32cUpdateTable;
#if defined(FBCDC_HAVE_FOLD_CRC)
bool crc32cUseFold = false;
bool crc32cUseFold256 = false;
#endif

namespace {

constexpr std::uint32_t kReflectedPolynomial = 0x82F63B78;

// Fills table so that XOR-ing table[k][byte k of x] over the four bytes of x gives the running
// value x folded over length zero bytes. The operation is linear, so it is enough to fold the 32
// single-bit values once.
void buildShiftTable(std::uint32_t (&table)[4][256], std::int32_t length) {
  std::uint32_t bit[32];
  for (int j = 0; j < 32; ++j) {
    std::uint32_t c = 1u << j;
    for (std::int32_t i = 0; i < length; ++i) c = (c >> 8) ^ crc32cTable[c & 0xFF];
    bit[j] = c;
  }
  for (int k = 0; k < 4; ++k) {
    for (std::uint32_t v = 0; v < 256; ++v) {
      std::uint32_t c = 0;
      for (int b = 0; b < 8; ++b)
        if (v & (1u << b)) c ^= bit[8 * k + b];
      table[k][v] = c;
    }
  }
}

// Runs once when the library is loaded, before any log is written; nothing writes the table or
// the pointer afterwards.
struct Crc32cLoadTimeInit {
  Crc32cLoadTimeInit() {
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? (c >> 1) ^ kReflectedPolynomial : c >> 1;
      crc32cTable[i] = c;
    }
#if defined(FBCDC_HAVE_SSE42_CRC)
    if (crc32cHasSse42()) {
      buildShiftTable(crc32cLongShift, kCrc32cLongLane);
      buildShiftTable(crc32cShortShift, kCrc32cShortLane);
      crc32cUpdate = crc32cUpdateSse42;
#if defined(FBCDC_HAVE_FOLD_CRC)
      crc32cUseFold = crc32cHasFold();
      crc32cUseFold256 = !crc32cUseFold && crc32cHasFold256();
#endif
    }
#endif
  }
} crc32cLoadTimeInit;

}  // namespace

bool crc32cHasSse42() {
#if defined(FBCDC_HAVE_SSE42_CRC)
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
  return (ecx & (1u << 20)) != 0;
#else
  return false;
#endif
}

#if defined(FBCDC_HAVE_FOLD_CRC)
bool crc32cHasFold() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
  const bool pclmul = ecx & (1u << 1), osxsave = ecx & (1u << 27);
  if (!pclmul || !osxsave) return false;
  // The operating system must save the 512-bit registers: XCR0 bits 1, 2 and 5 to 7.
  unsigned xcr0Low = 0, xcr0High = 0;
  __asm__("xgetbv" : "=a"(xcr0Low), "=d"(xcr0High) : "c"(0));
  if ((xcr0Low & 0xE6) != 0xE6) return false;
  if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return false;
  const bool avx512f = ebx & (1u << 16), avx512vl = ebx & (1u << 31), vpclmul = ecx & (1u << 10);
  return avx512f && avx512vl && vpclmul;
}

bool crc32cHasFold256() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
  const bool pclmul = ecx & (1u << 1), osxsave = ecx & (1u << 27), avx = ecx & (1u << 28);
  if (!pclmul || !osxsave || !avx) return false;
  // The operating system must save the 256-bit registers: XCR0 bits 1 and 2.
  unsigned xcr0Low = 0, xcr0High = 0;
  __asm__("xgetbv" : "=a"(xcr0Low), "=d"(xcr0High) : "c"(0));
  if ((xcr0Low & 0x6) != 0x6) return false;
  if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return false;
  const bool avx2 = ebx & (1u << 5), vpclmul = ecx & (1u << 10);
  return avx2 && vpclmul;
}
#endif

void crc32cUpdateTable(std::uint32_t& running, const std::uint8_t* data, std::int32_t length) {
  std::uint32_t c = running;
  for (std::int32_t i = 0; i < length; ++i) c = (c >> 8) ^ crc32cTable[(c ^ data[i]) & 0xFF];
  running = c;
}

std::uint32_t crc32c(const std::uint8_t* data, std::int32_t length) {
  std::uint32_t running = 0xFFFFFFFF;
  crc32cUpdate(running, data, length);
  return ~running;
}
