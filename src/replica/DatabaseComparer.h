// Compares the user tables of two databases of the same schema: the same rows with the same
// values in every column, blob and array contents included. Rows are matched by the primary key,
// or where a table has none by all their values (blobs by a hash of their contents, arrays not at
// all), both databases read in that order and merged, so that a row missing from one side is one
// difference and not a shift of every row after it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Database.h"

class DatabaseComparer {
 public:
  struct Difference {
    std::string table;
    // The row: its primary key's columns and values ("ID=5"), or for a table without one all its
    // values; empty where the difference is the whole table's.
    std::string key;
    std::string column;  // empty: the row, or the table, is in one database only
    std::string a, b;    // the column's values in each database, as messages show values
    std::string text;    // all of it in words, naming the databases
  };

  struct Result {
    bool equal = true;
    std::string difference;               // the first one found, in words
    std::vector<Difference> differences;  // the first maxDifferences found
    std::uint64_t differenceCount = 0;    // all found
    std::uint64_t tables = 0;
    std::uint64_t rows = 0;  // rows read from the first database
  };

  // Tables whose name is in skip are left out (the applier's own FBCDC_APPLIED, say).
  static Result compare(Database& a, Database& b, const std::vector<std::string>& skip,
                        std::size_t maxDifferences = 20);
};
