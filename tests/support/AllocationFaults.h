// Allocation failures on demand: the test binary replaces the global operator new, so that the
// library's own allocations can be made to fail, and counts allocations.
#pragma once

#include <cstddef>

namespace AllocationFaults {

// The next allocation of at least minimumSize bytes throws std::bad_alloc (once).
void failNextOfAtLeast(std::size_t minimumSize);
// Allocations through operator new since the last reset.
long count();
void reset();

}  // namespace AllocationFaults
