#include "platform/heap.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {
std::atomic<uint64_t> g_liveBytes{0};
std::atomic<uint64_t> g_liveBlocks{0};
// Allocations left before refusal starts; negative means never refuse.
std::atomic<int64_t> g_refuseAfter{-1};

bool refused() {
  int64_t left = g_refuseAfter.load(std::memory_order_relaxed);
  while (left >= 0) {
    if (left == 0) return true;
    if (g_refuseAfter.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) return false;
  }
  return false;
}
}  // namespace

namespace Heap {

void* alloc(uint64_t size, uint32_t /*kind*/, const void* /*caller*/) {
  if (refused()) return nullptr;
  void* block = std::malloc(size ? size : 1);
  if (!block) return nullptr;
  g_liveBytes.fetch_add(malloc_usable_size(block), std::memory_order_relaxed);
  g_liveBlocks.fetch_add(1, std::memory_order_relaxed);
  return block;
}

void free(void* block, uint32_t /*kind*/, const void* /*caller*/) {
  if (!block) return;
  g_liveBytes.fetch_sub(malloc_usable_size(block), std::memory_order_relaxed);
  g_liveBlocks.fetch_sub(1, std::memory_order_relaxed);
  std::free(block);
}

Stats stats() {
  return {g_liveBytes.load(std::memory_order_relaxed), g_liveBlocks.load(std::memory_order_relaxed)};
}

void refuseAfter(int64_t allowed) { g_refuseAfter.store(allowed < 0 ? -1 : allowed); }

}  // namespace Heap

namespace Mem {
void* fill8(void* destination, uint64_t count, uint8_t byte) {
  return std::memset(destination, byte, count);
}
void* copy(void* destination, const void* source, uint64_t count) {
  return std::memcpy(destination, source, count);
}
}  // namespace Mem
