// A column's value in a row read from a database, in the form a change log carries it, so that
// the two can be shown alike; the bytes by which two rows' values are told apart; and the short
// text in which messages show a value.
#pragma once

#include <string>

#include "Database.h"
#include "FieldValue.h"
#include "Message.h"

class RowValue {
 public:
  // Field i of row as a log carries it: a fixed-length text without its pad, blob and array
  // contents read into storage (which the value points into).
  static FieldValue read(Database& db, const Message& row, std::size_t i, std::string& storage);
  // The bytes that tell field i of row from another row's value of the same column: exact bits
  // of numbers, a text's bytes with its pad, blob and array contents; null apart from all.
  static std::string compared(Database& db, const Message& row, std::size_t i);
  // A value for a message: NULL, 12.34, 0.1 (doubles as the shortest text that reads back to the
  // same bits), 2023-11-14T22:13:20.0000, TRUE, 'text' (UTF-8 where the character set can be
  // read, else x'hex'), a long text or blob cut to its start with its length.
  static std::string text(const FieldValue& v);
};
