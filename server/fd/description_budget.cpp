#include "fd/description_budget.h"

#include <algorithm>

#include "platform/host_files.h"

DescriptionCharge::~DescriptionCharge() {
  budget_->live_.fetch_sub(1, std::memory_order_relaxed);
}

uint32_t DescriptionBudget::maxLive(uint64_t limit) {
  return static_cast<uint32_t>(std::clamp<uint64_t>(limit / 16, 16, 4096));
}

uint64_t DescriptionBudget::reserve(uint64_t limit, bool smallHolder) {
  return smallHolder ? std::max<uint64_t>(limit / 16, 16) : std::max<uint64_t>(limit / 8, 32);
}

Ref<DescriptionCharge> DescriptionBudget::charge(uint32_t hostFiles) {
  uint64_t limit = HostFiles::limit();
  uint32_t held = live_.load(std::memory_order_relaxed);
  do {
    if (held >= maxLive(limit)) return nullptr;
    // Other processes may make descriptions at the same moment; the reserve absorbs that.
    if (HostFiles::inUse() + hostFiles + reserve(limit, held < kSmallHolder) > limit)
      return nullptr;
  } while (!live_.compare_exchange_weak(held, held + 1, std::memory_order_relaxed));
  return new DescriptionCharge(this);
}
