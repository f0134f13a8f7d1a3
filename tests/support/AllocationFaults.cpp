#include "AllocationFaults.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace AllocationFaults {
namespace {
std::atomic<std::size_t> failSize{0};
}  // namespace

void failNextOfAtLeast(std::size_t minimumSize) { failSize = minimumSize; }
void reset() { failSize = 0; }

void* allocate(std::size_t size) {
  std::size_t armed = failSize;
  if (armed != 0 && size >= armed && failSize.compare_exchange_strong(armed, 0))
    throw std::bad_alloc();
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}

void* allocateOrNull(std::size_t size) noexcept {
  try {
    return allocate(size);
  } catch (...) {
    return nullptr;
  }
}

}  // namespace AllocationFaults

// Every form is replaced, the nothrow deletes too, so that ASan sees matching allocation pairs.
void* operator new(std::size_t size) { return AllocationFaults::allocate(size); }
void* operator new[](std::size_t size) { return AllocationFaults::allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return AllocationFaults::allocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return AllocationFaults::allocateOrNull(size);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }
