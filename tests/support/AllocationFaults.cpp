#include "AllocationFaults.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace AllocationFaults {
namespace {
std::atomic<std::size_t> failSize{0};
std::atomic<long> allocations{0};
}  // namespace

void failNextOfAtLeast(std::size_t minimumSize) { failSize = minimumSize; }
long count() { return allocations; }
void reset() {
  failSize = 0;
  allocations = 0;
}

// A failure throws std::bad_alloc, or with orNull (the nothrow forms) returns null.
void* allocate(std::size_t size, bool orNull = false) {
  ++allocations;
  std::size_t armed = failSize;
  const bool fail = armed != 0 && size >= armed && failSize.compare_exchange_strong(armed, 0);
  if (void* p = fail ? nullptr : std::malloc(size ? size : 1)) return p;
  if (orNull) return nullptr;
  throw std::bad_alloc();
}

}  // namespace AllocationFaults

// Every form is replaced, the nothrow deletes too, so that ASan sees matching allocation pairs.
void* operator new(std::size_t size) { return AllocationFaults::allocate(size); }
void* operator new[](std::size_t size) { return AllocationFaults::allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return AllocationFaults::allocate(size, true);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return AllocationFaults::allocate(size, true);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
