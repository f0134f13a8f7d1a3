#include "MessageRow.h"

#include <cstring>

#include "ResultSetRow.h"

MessageRow::MessageRow(std::string relation, Message& message)
    : relation_(std::move(relation)), buffer_(message.buffer()) {
  for (std::size_t i = 0; i < message.count(); ++i) {
    const Message::Field& f = message.field(i);
    Column c;
    c.name = f.name;
    c.type = ResultSetRow::typeCodeOf(f.type);
    c.scale = f.scale;
    c.length = static_cast<std::int32_t>(f.length);
    c.charSet = static_cast<std::int32_t>(f.charSet);
    c.offset = f.offset;
    c.nullOffset = f.nullOffset;
    columns_.push_back(std::move(c));
  }
}

Firebird::IReplField* MessageRow::getFields() {
  cursor_.reset();
  return &cursor_;
}

bool MessageRow::Cursor::isNull() {
  std::int16_t indicator;
  std::memcpy(&indicator, row_.buffer_ + column().nullOffset, sizeof indicator);
  return indicator != 0;
}

bool MessageRow::Cursor::moveNext() {
  if (index_ < row_.columns_.size()) ++index_;
  return isValid();
}
