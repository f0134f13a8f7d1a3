// The only file built with SSE4.2 code generation, so that no instruction the processor may lack
// leaks into code that runs without the load-time check.
#include "Crc32c.h"

#if defined(FBCDC_HAVE_SSE42_CRC)

#include <nmmintrin.h>

#include <cstring>

void crc32cUpdateSse42(std::uint32_t& running, const std::uint8_t* data, std::int32_t length) {
  std::uint32_t c = running;
  std::int32_t rest = length;
  if (length >= 4) {
    // Four bytes per step from the first byte on, unaligned; the instruction reads them in memory
    // order, which is the reflected CRC's order on a little-endian machine.
    const std::uint8_t* const stop = data + (length & ~3);
    for (; data < stop; data += 4) {
      std::uint32_t word;
      std::memcpy(&word, data, 4);
      c = _mm_crc32_u32(c, word);
    }
    rest = length & 3;
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
