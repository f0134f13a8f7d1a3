// A row image as the server hands it to the plugin: a relation name and a list of fields, each with
// a name, a type code in the server's descriptor numbering, scale, length, character set, null flag
// and the value's bytes as the server holds them.
//
// RowImage implements the server's IReplRecord and IReplField for code that feeds the plugin from
// outside the server: the tests, and drivers that replay rows read from a database. It owns copies
// of every name and value, so it may outlive whatever it was built from. getFields() hands out the
// image's one cursor, reset to the first field.
//
// Descriptor type codes: 1 fixed-length text, 2 zero-terminated text, 3 varying text (2-byte length
// prefix), 8 short, 9 long, 11 real, 12 double, 14 date, 15 time, 16 timestamp (date, then time),
// 17 blob and 18 array (an 8-byte id), 19 int64, 21 boolean; 0 means nothing to record.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "IReplRecord.h"

class RowImage : public Firebird::IReplRecord {
 public:
  struct Field {
    std::string name;
    bool nameIsNull = false;
    std::uint32_t type = 0;
    std::int32_t scale = 0;
    std::int32_t length = 0;
    std::int32_t charSet = 0;
    bool null = false;
    std::vector<std::uint8_t> value;  // the bytes getData() points at
  };

  explicit RowImage(const char* relation);  // relation may be null
  virtual ~RowImage() = default;
  RowImage(const RowImage&) = delete;
  RowImage& operator=(const RowImage&) = delete;

  void addField(Field field) { fields_.push_back(std::move(field)); }
  const std::vector<Field>& fields() const { return fields_; }

  std::uint32_t unusedSlot0() override { return 0; }
  const char* getName() override { return relationIsNull_ ? nullptr : relation_.c_str(); }
  std::uint32_t unusedSlot2() override { return 0; }
  Firebird::IReplField* getFields() override;

 protected:
  Field& lastField() { return fields_.back(); }

 private:
  class Cursor : public Firebird::IReplField {
   public:
    explicit Cursor(const std::vector<Field>& fields) : fields_(fields) {}
    void reset();
    bool isValid() override { return current_ != nullptr; }
    const char* getName() override;
    std::uint32_t getType() override { return field().type; }
    std::int32_t getScale() override { return field().scale; }
    std::int32_t getLength() override { return field().length; }
    std::int32_t getCharSet() override { return field().charSet; }
    bool isNull() override { return field().null; }
    const void* getData() override { return field().value.data(); }
    bool moveNext() override;

   private:
    // Reading a cursor that is not valid is the caller's error; it reads an empty field.
    const Field& field() const { return current_ ? *current_ : kNoField; }
    static const Field kNoField;

    const std::vector<Field>& fields_;
    std::size_t index_ = 0;
    const Field* current_ = nullptr;  // the field at index_, null past the end
  };

  std::string relation_;
  bool relationIsNull_;
  std::vector<Field> fields_;
  Cursor cursor_{fields_};
};
