// One line of text per event and per value, the same whether it is worked out from what a test
// wrote or from what the decoder read, so that the two can be compared as strings.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "ChangeEvent.h"

template <typename T>
std::string bitsOf(T value) {
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof value);
  return std::to_string(bits);
}

// Upper-case hexadecimal bytes separated by blanks.
std::string hexOf(std::string_view bytes);
// "short scale -2 1234", "text3 cs4 61 62", "null", "absent", "blob <size> <crc>" ...
std::string describe(const FieldValue& v);
// "I|<relation>|<field>:<before>><after>|..." or "S|<text>|<number>".
std::string describe(const ChangeEvent& e);
