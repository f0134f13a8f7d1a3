// A message buffer laid out by its metadata: the parameters of a statement, or one row of a
// result set. Field types are the OO API's SQL types without the nullable bit.
#pragma once

#include <firebird/Interface.h>

#include <string>
#include <string_view>
#include <vector>

class Message {
 public:
  // Takes its own reference to metadata. The buffer starts zeroed, every field not null.
  Message(Firebird::ThrowStatusWrapper* status, Firebird::IMessageMetadata* metadata);
  ~Message();
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  struct Field {
    std::string name;  // the column's name, or its alias
    unsigned type;
    unsigned subType;
    unsigned length;
    int scale;
    unsigned charSet;
    unsigned offset;
    unsigned nullOffset;
  };

  std::size_t count() const { return fields_.size(); }
  const Field& field(std::size_t i) const { return fields_[i]; }
  Firebird::IMessageMetadata* metadata() const { return metadata_; }
  unsigned char* buffer() { return buffer_.data(); }

  unsigned char* data(std::size_t i) { return buffer_.data() + fields_[i].offset; }
  const unsigned char* data(std::size_t i) const { return buffer_.data() + fields_[i].offset; }
  bool isNull(std::size_t i) const;
  void setNull(std::size_t i, bool null);
  // Stores a text in a field: padded with the character set's pad byte for SQL_TEXT, with its
  // 2-byte length for SQL_VARYING. Throws std::length_error when it does not fit.
  void setText(std::size_t i, std::string_view bytes);
  // The bytes of a text field (for SQL_TEXT with its padding).
  std::string_view text(std::size_t i) const;

 private:
  Firebird::IMessageMetadata* metadata_;
  std::vector<Field> fields_;
  std::vector<unsigned char> buffer_;
};
