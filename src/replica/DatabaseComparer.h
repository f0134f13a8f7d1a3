// Compares the user tables of two databases of the same schema: the same rows with the same
// values in every column, blob and array contents included. Rows are matched in the order of the
// primary key, or of all their columns but blobs and arrays where a table has none.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Database.h"

class DatabaseComparer {
 public:
  struct Result {
    bool equal = true;
    std::string difference;  // the first one found, in words
    std::uint64_t tables = 0;
    std::uint64_t rows = 0;  // rows compared
  };

  // Tables whose name is in skip are left out (the applier's own FBCDC_APPLIED, say).
  static Result compare(Database& a, Database& b, const std::vector<std::string>& skip);
};
