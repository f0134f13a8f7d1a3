#include "CharacterSets.h"

#include <iconv.h>

#include <array>
#include <cstring>
#include <mutex>

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

struct CharacterSet {
  std::uint8_t number;
  const char* name;
  const char* iconvName;  // single-byte sets that iconv reads; null otherwise
};

// Numbers as the server's RDB$CHARACTER_SETS gives them.
constexpr CharacterSet kSets[] = {
    {0, "NONE", nullptr},
    {1, "OCTETS", nullptr},
    {2, "ASCII", nullptr},
    {3, "UNICODE_FSS", nullptr},
    {4, "UTF8", nullptr},
    {5, "SJIS_0208", nullptr},
    {6, "EUCJ_0208", nullptr},
    {9, "DOS737", "CP737"},
    {10, "DOS437", "CP437"},
    {11, "DOS850", "CP850"},
    {12, "DOS865", "CP865"},
    {13, "DOS860", "CP860"},
    {14, "DOS863", "CP863"},
    {15, "DOS775", "CP775"},
    {16, "DOS858", "CP858"},
    {17, "DOS862", "CP862"},
    {18, "DOS864", "CP864"},
    {19, "NEXT", nullptr},
    {21, "ISO8859_1", "ISO-8859-1"},
    {22, "ISO8859_2", "ISO-8859-2"},
    {23, "ISO8859_3", "ISO-8859-3"},
    {34, "ISO8859_4", "ISO-8859-4"},
    {35, "ISO8859_5", "ISO-8859-5"},
    {36, "ISO8859_6", "ISO-8859-6"},
    {37, "ISO8859_7", "ISO-8859-7"},
    {38, "ISO8859_8", "ISO-8859-8"},
    {39, "ISO8859_9", "ISO-8859-9"},
    {40, "ISO8859_13", "ISO-8859-13"},
    {44, "KSC_5601", nullptr},
    {45, "DOS852", "CP852"},
    {46, "DOS857", "CP857"},
    {47, "DOS861", "CP861"},
    {48, "DOS866", "CP866"},
    {49, "DOS869", "CP869"},
    {50, "CYRL", nullptr},
    {51, "WIN1250", "CP1250"},
    {52, "WIN1251", "CP1251"},
    {53, "WIN1252", "CP1252"},
    {54, "WIN1253", "CP1253"},
    {55, "WIN1254", "CP1254"},
    {56, "BIG_5", nullptr},
    {57, "GB_2312", nullptr},
    {58, "WIN1255", "CP1255"},
    {59, "WIN1256", "CP1256"},
    {60, "WIN1257", "CP1257"},
    {63, "KOI8R", "KOI8-R"},
    {64, "KOI8U", "KOI8-U"},
    {65, "WIN1258", "CP1258"},
    {66, "TIS620", "TIS-620"},
    {67, "GBK", nullptr},
    {68, "CP943C", nullptr},
    {69, "GB18030", nullptr},
};

const CharacterSet* find(std::uint8_t number) {
  for (const CharacterSet& s : kSets)
    if (s.number == number) return &s;
  return nullptr;
}

// The UTF-8 form of each byte of one single-byte set, at most 4 bytes (3 in practice).
struct ByteTable {
  std::array<std::array<char, 4>, 256> utf8;
  std::array<std::uint8_t, 256> length;
};

void appendCodePoint(std::uint32_t c, std::array<char, 4>& out, std::uint8_t& length) {
  if (c < 0x80) {
    out[0] = static_cast<char>(c);
    length = 1;
  } else if (c < 0x800) {
    out[0] = static_cast<char>(0xC0 | c >> 6);
    out[1] = static_cast<char>(0x80 | (c & 0x3F));
    length = 2;
  } else {
    out[0] = static_cast<char>(0xE0 | c >> 12);
    out[1] = static_cast<char>(0x80 | (c >> 6 & 0x3F));
    out[2] = static_cast<char>(0x80 | (c & 0x3F));
    length = 3;
  }
}

// Built once per set, on first use, by asking iconv for every byte alone. A byte that yields no
// single code point in the Basic Multilingual Plane (undefined, or a combining mark iconv holds
// back) becomes U+FFFD.
void buildTable(const char* iconvName, ByteTable& table) {
  iconv_t cd = iconv_open("UCS-2LE", iconvName);
  for (int b = 0; b < 256; ++b) {
    std::uint32_t code = 0xFFFD;
    if (cd != reinterpret_cast<iconv_t>(-1)) {
      char in = static_cast<char>(b);
      char outBytes[16];
      char* inPtr = &in;
      char* outPtr = outBytes;
      std::size_t inLeft = 1;
      std::size_t outLeft = sizeof outBytes;
      iconv(cd, nullptr, nullptr, nullptr, nullptr);
      const std::size_t r = iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft);
      iconv(cd, nullptr, nullptr, &outPtr, &outLeft);
      if (r != static_cast<std::size_t>(-1) && outPtr - outBytes == 2) {
        code = static_cast<std::uint8_t>(outBytes[0]) |
               static_cast<std::uint32_t>(static_cast<std::uint8_t>(outBytes[1])) << 8;
      }
    }
    appendCodePoint(code, table.utf8[b], table.length[b]);
  }
  if (cd != reinterpret_cast<iconv_t>(-1)) iconv_close(cd);
}

const ByteTable& tableOf(const CharacterSet& set) {
  static ByteTable tables[256];
  static std::once_flag built[256];
  std::call_once(built[set.number], [&set] { buildTable(set.iconvName, tables[set.number]); });
  return tables[set.number];
}

// Length of the valid UTF-8 sequence at p (of at most n bytes), or 0 when it is not one.
std::size_t validSequence(const unsigned char* p, std::size_t n) {
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  std::size_t length;
  std::uint32_t min;
  std::uint32_t code;
  if ((c & 0xE0) == 0xC0) {
    length = 2, min = 0x80, code = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    length = 3, min = 0x800, code = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    length = 4, min = 0x10000, code = c & 0x07;
  } else {
    return 0;
  }
  if (n < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((p[i] & 0xC0) != 0x80) return 0;
    code = code << 6 | (p[i] & 0x3F);
  }
  // Overlong forms, surrogates and numbers beyond U+10FFFF are not UTF-8.
  if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

}  // namespace

const char* CharacterSets::nameOf(std::uint8_t charSet) {
  const CharacterSet* set = find(charSet);
  return set ? set->name : nullptr;
}

bool CharacterSets::isReadable(std::uint8_t charSet) {
  if (charSet == 0 || charSet == 2 || charSet == 3 || charSet == 4) return true;
  const CharacterSet* set = find(charSet);
  return set && set->iconvName;
}

void CharacterSets::appendValidUtf8(std::string_view bytes, std::string& out) {
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t n = bytes.size();
  while (n > 0) {
    // Runs of ASCII are the common case and are copied whole.
    std::size_t ascii = 0;
    while (ascii < n && p[ascii] < 0x80) ++ascii;
    out.append(reinterpret_cast<const char*>(p), ascii);
    p += ascii;
    n -= ascii;
    if (n == 0) break;
    const std::size_t length = validSequence(p, n);
    if (length == 0) {
      out.append(kReplacement, 3);
      ++p, --n;
    } else {
      out.append(reinterpret_cast<const char*>(p), length);
      p += length, n -= length;
    }
  }
}

bool CharacterSets::appendUtf8(std::uint8_t charSet, std::string_view bytes, std::string& out) {
  switch (charSet) {
    case 0:
    case 2:
      for (const char c : bytes) {
        if (static_cast<unsigned char>(c) < 0x80)
          out.push_back(c);
        else
          out.append(kReplacement, 3);
      }
      return true;
    case 3:
    case 4:
      appendValidUtf8(bytes, out);
      return true;
    default:
      break;
  }
  const CharacterSet* set = find(charSet);
  if (!set || !set->iconvName) return false;
  const ByteTable& table = tableOf(*set);
  for (const char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    out.append(table.utf8[b].data(), table.length[b]);
  }
  return true;
}
