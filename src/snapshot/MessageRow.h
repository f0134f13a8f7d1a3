// A row of a result set as the plugin's row image: each column of the message becomes a field
// named after the column, with the descriptor type code the plugin records for its SQL type
// (ResultSetRow's mapping), and values read in place from the message buffer that fetchNext fills.
//
// Unlike ResultSetRow it copies nothing: the field descriptions are read once from the message's
// metadata, and the image shows whatever row the buffer holds at the moment the plugin reads it.
// That makes it the image for reading many rows of one statement.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "IReplRecord.h"
#include "Message.h"

class MessageRow final : public Firebird::IReplRecord {
 public:
  // message must outlive the row image.
  MessageRow(std::string relation, Message& message);
  MessageRow(const MessageRow&) = delete;
  MessageRow& operator=(const MessageRow&) = delete;

  std::uint32_t unusedSlot0() override { return 0; }
  const char* getName() override { return relation_.c_str(); }
  std::uint32_t unusedSlot2() override { return 0; }
  Firebird::IReplField* getFields() override;

 private:
  struct Column {
    std::string name;
    std::uint32_t type;
    std::int32_t scale;
    std::int32_t length;
    std::int32_t charSet;
    unsigned offset;
    unsigned nullOffset;
  };

  class Cursor final : public Firebird::IReplField {
   public:
    explicit Cursor(const MessageRow& row) : row_(row) {}
    void reset() { index_ = 0; }
    bool isValid() override { return index_ < row_.columns_.size(); }
    const char* getName() override { return column().name.c_str(); }
    std::uint32_t getType() override { return column().type; }
    std::int32_t getScale() override { return column().scale; }
    std::int32_t getLength() override { return column().length; }
    std::int32_t getCharSet() override { return column().charSet; }
    bool isNull() override;
    const void* getData() override { return row_.buffer_ + column().offset; }
    bool moveNext() override;

   private:
    // Reading a cursor past the end is the caller's error; it reads the last column.
    const Column& column() const {
      return row_.columns_[index_ < row_.columns_.size() ? index_ : row_.columns_.size() - 1];
    }
    const MessageRow& row_;
    std::size_t index_ = 0;
  };

  std::string relation_;
  const unsigned char* buffer_;  // the message's buffer, which fetchNext fills
  std::vector<Column> columns_;
  Cursor cursor_{*this};
};
