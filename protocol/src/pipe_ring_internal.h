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

// Rounds of looking again before a wait goes to sleep (about 20 us on the project's VM): the
// other side usually answers within that on another core, and a sleep and wake-up cost more.
// On a machine whose cores are all busy the spin still pays: a sleeping reader or writer waits
// for the scheduler to pick it again, and a pipe then moves a ring at a time (measured: 0.5 of
// a Linux pipe with a 8 us spin, 6.9 with this one).
inline constexpr int kSpins = 1000;

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

struct PipeRing::Deadline {
  explicit Deadline(int timeoutMs)
      : forever(timeoutMs < 0), at(forever ? 0 : ring::nowNs() + int64_t{timeoutMs} * 1000000) {}
  Deadline(bool f, int64_t a) : forever(f), at(a) {}
  // Nanoseconds left; 0 once passed.
  int64_t left() const {
    if (forever) return INT64_MAX;
    int64_t rest = at - ring::nowNs();
    return rest > 0 ? rest : 0;
  }
  // This deadline, or the moment `ns` from now when that comes first.
  Deadline within(int64_t ns) const {
    int64_t soon = ring::nowNs() + ns;
    return forever || soon < at ? Deadline(false, soon) : *this;
  }
  const bool forever;
  const int64_t at;
};


}  // namespace posix
