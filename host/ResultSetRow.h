// A row image built from one row of a Firebird result set: the output metadata of a statement and
// the message buffer that fetchNext filled.
//
//   IMessageMetadata* meta = statement->getOutputMetadata(&status);
//   while (cursor->fetchNext(&status, message) == IStatus::RESULT_OK) {
//     ResultSetRow row("T", meta, message);
//     transaction->insertRecord(status, attachment, tr, &row);
//   }
//
// Each column becomes one field named after the column (its alias when it has no field name, and
// "COLUMN_<n>" for the n-th column when it has neither),
// with its SQL type mapped to the descriptor type code the plugin records. A column type that has
// no such code maps to a code the plugin refuses, so that the refusal reaches the caller.
#pragma once

#include <firebird/Interface.h>

#include "RowImage.h"

class ResultSetRow : public RowImage {
 public:
  // Copies every value out of message; throws std::runtime_error if the metadata cannot be read.
  ResultSetRow(const char* relation, Firebird::IMessageMetadata* metadata,
               const unsigned char* message);

  // The descriptor type code for an SQL type of the OO API (the nullable bit is ignored).
  static std::uint32_t typeCodeOf(unsigned sqlType);
  // The code given to column types the plugin does not record.
  static constexpr std::uint32_t kUnrecordedType = 22;
};
