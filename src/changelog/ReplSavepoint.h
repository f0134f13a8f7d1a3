// One node of a transaction's savepoint stack: where the log stood when the savepoint started.
#pragma once

#include <cstdint>

struct ReplSavepoint {
  ReplSavepoint* next;    // the node below; null for the bottom node
  std::int32_t number;    // the server's savepoint number, compared as signed
  std::int64_t position;  // log position at the savepoint's start
};
