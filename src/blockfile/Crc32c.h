// CRC-32C (Castagnoli): the checksum that closes every block of a change log.
//
// Polynomial 0x1EDC6F41 processed bit-reflected as 0x82F63B78, initial value 0xFFFFFFFF, final
// complement. crc32c("123456789") == 0xE3069283.
//
// At library load a static initialiser builds crc32cTable and points crc32cUpdate at the SSE4.2
// implementation when CPUID reports the instruction, otherwise at the table. Both are read-only
// afterwards, so CRCs may be computed from any number of threads.
#pragma once

#include <cstdint>

// Folds length bytes into a running value, with no initial value and no final complement.
using Crc32cUpdateFunction = void (*)(std::uint32_t& running, const std::uint8_t* data,
                                      std::int32_t length);

extern std::uint32_t crc32cTable[256];
extern Crc32cUpdateFunction crc32cUpdate;

void crc32cUpdateTable(std::uint32_t& running, const std::uint8_t* data, std::int32_t length);

#if defined(__x86_64__) || defined(__i386__)
#define FBCDC_HAVE_SSE42_CRC 1
// Only to be called when crc32cHasSse42() is true.
void crc32cUpdateSse42(std::uint32_t& running, const std::uint8_t* data, std::int32_t length);
#endif

// The SSE4.2 path folds long inputs in three interleaved lanes and joins the lanes' values by
// shifting one over the length of the next: shifting a running value over n zero bytes is linear,
// so it is four table lookups, one per byte of the value. Tables for the two lane lengths are built
// at load, with crc32cTable, when the SSE4.2 path is selected.
constexpr std::int32_t kCrc32cLongLane = 10920;  // three lanes cover a block's 32764 bytes but 4
constexpr std::int32_t kCrc32cShortLane = 256;
extern std::uint32_t crc32cLongShift[4][256];
extern std::uint32_t crc32cShortShift[4][256];

#if defined(__x86_64__)
#define FBCDC_HAVE_FOLD_CRC 1
// Inputs of at least kCrc32cFoldMinimum bytes are folded with 512-bit carry-less multiplication
// when the processor has it (crc32cHasFold, decided at load), else with 256-bit carry-less
// multiplication when it has that (crc32cHasFold256): crc32cUpdateSse42 hands them on. On a
// processor with AVX2 and VPCLMULQDQ but no AVX-512 the 256-bit fold outruns the three lanes of
// the CRC32 instruction.
constexpr std::int32_t kCrc32cFoldMinimum = 256;
extern bool crc32cUseFold;
extern bool crc32cUseFold256;
bool crc32cHasFold();
bool crc32cHasFold256();
void crc32cUpdateFold(std::uint32_t& running, const std::uint8_t* data, std::int32_t length);
void crc32cUpdateFold256(std::uint32_t& running, const std::uint8_t* data, std::int32_t length);
#endif

// Whether the processor has the SSE4.2 CRC32 instruction (CPUID leaf 1, ECX bit 20).
bool crc32cHasSse42();

// CRC-32C of length bytes (length not negative).
std::uint32_t crc32c(const std::uint8_t* data, std::int32_t length);
