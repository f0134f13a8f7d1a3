// One event of a change log: a row change, an SQL statement, or the end of the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FieldValue.h"

// A field of a row change: its name and the old and new value, each present or absent as the
// record carries them (an insert has new values only, a delete old ones only).
struct FieldChange {
  std::string_view name;
  FieldValue before;
  FieldValue after;
};

// The fields of an event, in the record's order: a view of the decoder's storage, valid until its
// next event.
class FieldList {
 public:
  const FieldChange* begin() const { return data_; }
  const FieldChange* end() const { return data_ + size_; }
  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const FieldChange& operator[](std::size_t i) const { return data_[i]; }

 private:
  friend class LogDecoder;
  FieldChange* data_ = nullptr;
  std::size_t size_ = 0;
};

struct ChangeEvent {
  enum class Kind : std::uint8_t { kInsert, kUpdate, kDelete, kSql, kEnd };

  Kind kind = Kind::kEnd;
  std::uint32_t index = 0;    // the event's place in its log, from 0
  std::int64_t position = 0;  // log position of the record's tag byte (of the marker for kEnd)
  std::string_view relation;  // row changes: the relation name (may be empty)
  FieldList fields;
  std::string_view sqlText;  // statements
  std::int64_t sqlNumber = 0;

  bool isRowChange() const { return kind <= Kind::kDelete; }
};
