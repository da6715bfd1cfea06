#include "platform/sync.h"

#include <chrono>

#include "platform/thread.h"

Ref<Mon> Mon::create(uint32_t /*flags*/) { return new Mon(); }

bool Mon::enter(uint32_t timeoutMs) {
  const uint64_t self = Thd::current();
  std::unique_lock lock(mutex_);
  if (owner_ != self) {
    auto isFree = [this] { return owner_ == 0; };
    if (timeoutMs == kForever)
      released_.wait(lock, isFree);
    else if (!released_.wait_for(lock, std::chrono::milliseconds(timeoutMs), isFree))
      return false;
    owner_ = self;
  }
  ++depth_;
  return true;
}

void Mon::leave() {
  {
    std::lock_guard lock(mutex_);
    if (depth_ == 0 || owner_ != Thd::current()) return;  // not held by this thread
    if (--depth_ > 0) return;
    owner_ = 0;
  }
  released_.notify_one();
}

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
  static auto* lock = new std::recursive_mutex;  // never destroyed: threads outlive exit
  return *lock;
}
}  // namespace
void lock() { initLock().lock(); }
void unlock() { initLock().unlock(); }
}  // namespace InitCode
