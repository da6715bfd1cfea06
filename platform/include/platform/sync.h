// Locks and counters: the re-entrant monitor, the counting semaphore, atomic counters and the
// process-wide initialisation lock. Time-outs are milliseconds; kForever waits for ever.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "platform/object.h"

constexpr uint32_t kForever = 0xFFFFFFFFu;

// A re-entrant monitor: the thread that holds it may enter it again. Built on a mutex and a
// condition variable (rather than a timed recursive mutex) so that timed entries wait without
// polling and stay visible to ThreadSanitizer.
class Mon : public Object {
 public:
  // `flags` is accepted for the callers that pass one; the hosted monitor has one kind only.
  static Ref<Mon> create(uint32_t flags = 0);
  // Answers false when the time-out ended before the monitor could be entered.
  bool enter(uint32_t timeoutMs = kForever);
  void leave();

 private:
  Mon() = default;
  std::mutex mutex_;
  std::condition_variable released_;
  uint64_t owner_ = 0;  // guarded by mutex_: Linux thread id of the holder, 0 when free
  uint64_t depth_ = 0;  // guarded by mutex_: how often the holder has entered
};

// Holds a monitor for a scope.
class MonLock {
 public:
  explicit MonLock(Mon* mon) : mon_(mon) { if (mon_) mon_->enter(); }
  explicit MonLock(const Ref<Mon>& mon) : MonLock(mon.get()) {}
  ~MonLock() { if (mon_) mon_->leave(); }
  MonLock(const MonLock&) = delete;
  MonLock& operator=(const MonLock&) = delete;

 private:
  Mon* mon_;
};

class Sem : public Object {
 public:
  static Ref<Sem> create(uint32_t initial = 0);
  void up();
  // Answers false when the time-out ended with the count still at zero.
  bool down(uint32_t timeoutMs = kForever);

 private:
  explicit Sem(uint32_t initial) : count_(initial) {}
  std::mutex mutex_;
  std::condition_variable cond_;
  uint64_t count_;  // guarded by mutex_
};

namespace Atomic {
// Both answer the new value.
uint64_t inc(uint64_t* value);
uint64_t dec(uint64_t* value);
}  // namespace Atomic

// One process-wide re-entrant lock for lazy creation of process-wide objects and the
// exit-handler list.
namespace InitCode {
void lock();
void unlock();
}  // namespace InitCode
