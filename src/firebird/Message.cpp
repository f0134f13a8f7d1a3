#include "Message.h"

#include <cstring>
#include <stdexcept>

Message::Message(Firebird::ThrowStatusWrapper* status, Firebird::IMessageMetadata* metadata)
    : metadata_(metadata) {
  metadata_->addRef();
  const unsigned n = metadata->getCount(status);
  fields_.resize(n);
  for (unsigned i = 0; i < n; ++i) {
    Field& f = fields_[i];
    const char* field = metadata->getField(status, i);
    const char* alias = metadata->getAlias(status, i);
    f.name = field && *field ? field : alias ? alias : "";
    f.type = metadata->getType(status, i) & ~1u;
    f.subType = static_cast<unsigned>(metadata->getSubType(status, i));
    f.length = metadata->getLength(status, i);
    f.scale = metadata->getScale(status, i);
    f.charSet = metadata->getCharSet(status, i);
    f.offset = metadata->getOffset(status, i);
    f.nullOffset = metadata->getNullOffset(status, i);
  }
  buffer_.assign(metadata->getMessageLength(status), 0);
}

Message::~Message() { metadata_->release(); }

bool Message::isNull(std::size_t i) const {
  std::int16_t indicator;
  std::memcpy(&indicator, buffer_.data() + fields_[i].nullOffset, sizeof indicator);
  return indicator != 0;
}

void Message::setNull(std::size_t i, bool null) {
  const std::int16_t indicator = null ? -1 : 0;
  std::memcpy(buffer_.data() + fields_[i].nullOffset, &indicator, sizeof indicator);
}

void Message::setText(std::size_t i, std::string_view bytes) {
  const Field& f = fields_[i];
  if (bytes.size() > f.length)
    throw std::length_error("a text of " + std::to_string(bytes.size()) + " bytes for " + f.name +
                            " of " + std::to_string(f.length));
  unsigned char* p = data(i);
  if (f.type == SQL_VARYING) {
    const auto n = static_cast<std::uint16_t>(bytes.size());
    std::memcpy(p, &n, 2);
    std::memcpy(p + 2, bytes.data(), bytes.size());
  } else {
    std::memcpy(p, bytes.data(), bytes.size());
    // OCTETS pads with zero bytes, every other character set with blanks.
    std::memset(p + bytes.size(), (f.charSet & 0xFF) == 1 ? 0 : ' ', f.length - bytes.size());
  }
  setNull(i, false);
}

std::string_view Message::text(std::size_t i) const {
  const Field& f = fields_[i];
  const unsigned char* p = data(i);
  if (f.type == SQL_VARYING) {
    std::uint16_t n;
    std::memcpy(&n, p, 2);
    return std::string_view(reinterpret_cast<const char*>(p + 2), n);
  }
  return std::string_view(reinterpret_cast<const char*>(p), f.length);
}
