// What the two halves of the pipe ring share: atomic access to page fields, the spin pause,
// the monotonic clock and the deadline of a call.
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>

#include "posix/pipe_ring.h"

namespace posix {

// Internal to the ring's two source files.
namespace ring {

// Rounds of looking again before a wait sleeps (about 20 us) while the other side runs on
// another processor (Patience says when looking again pays at all).
inline constexpr int kSpins = 1000;
// Rounds of looking again for a lock another holder has: it holds it for one copy (well under a
// microsecond for a ring of 4096 bytes) unless it was preempted, and then a sleep is better.
inline constexpr int kLockSpins = 100;
// How long a call that may not wait for bytes or room still waits for the lock: another holder
// holds it for a copy, or longer only when it is preempted, stopped or gone (then the lock is
// recovered within PX_PIPE_STUCK_MS). EAGAIN means empty or full, never "another is inside".
inline constexpr int kBusyLockMs = 100;

template <class T>
inline std::atomic_ref<T> at(T* field) {
  return std::atomic_ref<T>(*field);
}

inline void relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

inline int64_t nowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace ring

// A call's time-out. A relative one starts when it is first asked for, at the call's first
// wait: a call that never waits (bytes or room were there) reads no clock, and the copies
// before the first wait take microseconds of a time-out of milliseconds.
struct PipeRing::Deadline {
  explicit Deadline(int timeoutMs)
      : forever(timeoutMs < 0), span_(forever ? 0 : int64_t{timeoutMs} * 1000000) {}
  Deadline(bool f, int64_t a) : forever(f), span_(0), at_(a) {}
  // Nanoseconds left; 0 once passed.
  int64_t left() const {
    if (forever) return INT64_MAX;
    if (at_ == 0) {
      if (span_ == 0) return 0;
      at_ = ring::nowNs() + span_;
    }
    int64_t rest = at_ - ring::nowNs();
    return rest > 0 ? rest : 0;
  }
  // This deadline, or one `ms` after the start when that comes later.
  Deadline atLeast(int ms) const {
    const int64_t span = int64_t{ms} * 1000000;
    if (forever) return *this;
    if (at_ == 0) return span_ >= span ? *this : Deadline(ms);
    int64_t later = ring::nowNs() + span;
    return later <= at_ ? *this : Deadline(false, later);
  }
  // This deadline, or the moment `ns` from now when that comes first.
  Deadline within(int64_t ns) const {
    if (forever) return Deadline(false, ring::nowNs() + ns);
    left();  // started now, if it was not
    int64_t soon = ring::nowNs() + ns;
    return soon < at_ ? Deadline(false, soon) : *this;
  }
  const bool forever;

 private:
  const int64_t span_;     // a relative time-out not started yet; 0 with at_ 0: none left
  mutable int64_t at_ = 0;  // the moment it passes, once started
};


}  // namespace posix
