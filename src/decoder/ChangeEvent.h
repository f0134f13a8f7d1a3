// One event of a change log: a row change, an SQL statement, or the end of the log.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "FieldValue.h"

// A field of a row change: its name and the old and new value, each present or absent as the
// record carries them (an insert has new values only, a delete old ones only).
struct FieldChange {
  std::string_view name;
  FieldValue before;
  FieldValue after;
};

struct ChangeEvent {
  enum class Kind : std::uint8_t { kInsert, kUpdate, kDelete, kSql, kEnd };

  Kind kind = Kind::kEnd;
  std::uint32_t index = 0;    // the event's place in its log, from 0
  std::int64_t position = 0;  // log position of the record's tag byte (of the marker for kEnd)
  std::string_view relation;  // row changes: the relation name (may be empty)
  std::vector<FieldChange> fields;
  std::string_view sqlText;  // statements
  std::int64_t sqlNumber = 0;

  bool isRowChange() const { return kind <= Kind::kDelete; }
};
