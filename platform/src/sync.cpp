#include "platform/sync.h"

#include <chrono>

Ref<Mon> Mon::create(uint32_t /*flags*/) { return new Mon(); }

bool Mon::enter(uint32_t timeoutMs) {
  if (timeoutMs == kForever) {
    mutex_.lock();
    return true;
  }
  return mutex_.try_lock_for(std::chrono::milliseconds(timeoutMs));
}

void Mon::leave() { mutex_.unlock(); }

Ref<Sem> Sem::create(uint32_t initial) { return new Sem(initial); }

void Sem::up() {
  {
    std::lock_guard lock(mutex_);
    ++count_;
  }
  cond_.notify_one();
}

bool Sem::down(uint32_t timeoutMs) {
  std::unique_lock lock(mutex_);
  if (timeoutMs == kForever) {
    cond_.wait(lock, [this] { return count_ > 0; });
  } else if (!cond_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return count_ > 0; })) {
    return false;
  }
  --count_;
  return true;
}

namespace Atomic {
uint64_t inc(uint64_t* value) { return __atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST); }
uint64_t dec(uint64_t* value) { return __atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST); }
}  // namespace Atomic

namespace InitCode {
namespace {
std::recursive_mutex& initLock() {
  static std::recursive_mutex lock;
  return lock;
}
}  // namespace
void lock() { initLock().lock(); }
void unlock() { initLock().unlock(); }
}  // namespace InitCode
