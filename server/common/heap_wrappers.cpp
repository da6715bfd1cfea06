// Every allocation and free of the server goes through the platform heap. An allocation that
// the heap refuses for a non-zero size is not returned as null: the wrapper divides by zero on
// purpose, so that the crash dump names the allocating site.
#include <cstddef>
#include <new>

#include "platform/heap.h"

namespace {

// Kept out of line and volatile so that the division really happens at run time, and exempt
// from the undefined-behaviour checker, which would otherwise report it instead of letting the
// processor fault reach the crash handler.
[[gnu::noinline]] __attribute__((no_sanitize("integer-divide-by-zero"))) void refusedAllocation() {
  volatile unsigned one = 1;
  volatile unsigned zero = 0;
  volatile unsigned fault = one / zero;
  (void)fault;
}

[[gnu::always_inline]] inline void* allocate(std::size_t size, uint32_t kind, const void* caller) {
  void* block = Heap::alloc(size, kind, caller);
  if (!block && size != 0) refusedAllocation();
  return block;
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size, Heap::kSingle, __builtin_return_address(0));
}
void* operator new[](std::size_t size) {
  return allocate(size, Heap::kArray, __builtin_return_address(0));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, Heap::kSingle, __builtin_return_address(0));
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, Heap::kArray, __builtin_return_address(0));
}

void operator delete(void* block) noexcept { Heap::free(block, Heap::kSingle, __builtin_return_address(0)); }
void operator delete[](void* block) noexcept { Heap::free(block, Heap::kSingle, __builtin_return_address(0)); }
void operator delete(void* block, std::size_t) noexcept {
  Heap::free(block, Heap::kSingle, __builtin_return_address(0));
}
void operator delete[](void* block, std::size_t) noexcept {
  Heap::free(block, Heap::kSingle, __builtin_return_address(0));
}
