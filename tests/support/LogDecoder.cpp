#include "LogDecoder.h"

#include <stdexcept>

#include "TReadFile.h"

namespace {

class Decoder {
 public:
  explicit Decoder(const std::string& path) { log_.open(path.c_str(), true); }

  std::vector<DecodedRecord> records() {
    Bytes magic(5);
    log_.getBytes(magic.data(), 5);
    if (magic != bytesOf("ZEFO\x04")) throw std::runtime_error("bad log header");
    std::vector<DecodedRecord> out;
    for (;;) {
      const std::uint8_t tag = log_.getByte();
      if (tag == 0x7B) break;
      DecodedRecord r;
      r.tag = static_cast<char>(tag);
      if (log_.getByte() != 0) throw std::runtime_error("record without its 00 byte");
      r.name = shortText();
      if (tag == 'S') {
        if (log_.getByte() != 19 || log_.getInt16() != 0) throw std::runtime_error("bad statement");
        r.number = static_cast<std::int64_t>(log_.getInt64());
      } else if (tag == 'I' || tag == 'U' || tag == 'D') {
        fields(r);
      } else {
        throw std::runtime_error("unknown record tag " + std::to_string(tag));
      }
      out.push_back(std::move(r));
    }
    return out;
  }

 private:
  std::string shortText() {
    const std::uint8_t n = log_.getByte();
    return text(n);
  }
  std::string text(std::size_t n) {
    std::string s(n, '\0');
    log_.getBytes(&s[0], static_cast<std::int32_t>(n));
    return s;
  }

  // Field entries up to the end byte; a byte behind a name is a marker, the end, or the next name.
  void fields(DecodedRecord& r) {
    std::uint8_t b = log_.getByte();
    while (b != 0xFF) {
      DecodedField f;
      f.name = text(b);
      b = log_.getByte();
      while (b == 0xFD || b == 0xFE) {
        f.values.push_back(value(b));
        b = log_.getByte();
      }
      r.fields.push_back(std::move(f));
    }
  }

  DecodedValue value(std::uint8_t marker) {
    DecodedValue v;
    v.marker = marker;
    const std::uint8_t type = log_.getByte();
    if (type == 99) {
      v.null = true;
      return v;
    }
    v.type = type;
    auto take = [&](std::size_t n) {
      const std::string s = text(n);
      v.payload.assign(s.begin(), s.end());
    };
    switch (type) {
      case 1:
      case 2:
      case 3:
        v.charSet = log_.getByte();
        take(log_.getInt16());
        break;
      case 8:
        v.scale = static_cast<std::int16_t>(log_.getInt16());
        take(2);
        break;
      case 9:
        v.scale = static_cast<std::int16_t>(log_.getInt16());
        take(4);
        break;
      case 11:
      case 12:
      case 16:
        take(8);
        break;
      case 14:
      case 15:
        take(4);
        break;
      case 19:
        v.scale = static_cast<std::int16_t>(log_.getInt16());
        take(8);
        break;
      case 21:
        take(1);
        break;
      case 17:
      case 18:
        for (std::uint16_t n = log_.getInt16(); n != 0; n = log_.getInt16()) {
          const std::string piece = text(n);
          v.payload.insert(v.payload.end(), piece.begin(), piece.end());
          v.pieces.push_back(n);
        }
        break;
      default:
        throw std::runtime_error("unknown value type " + std::to_string(type));
    }
    return v;
  }

  TReadFile log_;
};

}  // namespace

std::vector<DecodedRecord> decodeLog(const std::string& path) { return Decoder(path).records(); }
