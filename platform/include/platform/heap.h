// The platform heap: malloc/free with live counts that tests and diagnostics can read.
#pragma once

#include <cstdint>

namespace Heap {

// Allocation kinds as the callers pass them.
constexpr uint32_t kSingle = 1;
constexpr uint32_t kArray = 2;

// Answers null when the heap refuses (out of memory, or the test hook below).
void* alloc(uint64_t size, uint32_t kind, const void* caller);
void free(void* block, uint32_t kind, const void* caller);

struct Stats {
  uint64_t liveBytes;   // usable bytes of blocks allocated and not yet freed
  uint64_t liveBlocks;  // blocks allocated and not yet freed
};
Stats stats();

// Test hook: after `allowed` more successful allocations, refuse every further one until
// called again with a negative count (which switches refusal off).
void refuseAfter(int64_t allowed);

}  // namespace Heap

namespace Mem {
void* fill8(void* destination, uint64_t count, uint8_t byte);
void* copy(void* destination, const void* source, uint64_t count);
}  // namespace Mem
