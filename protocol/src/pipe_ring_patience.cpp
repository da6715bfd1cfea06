#include "pipe_ring_patience.h"

#include <sched.h>

#include <algorithm>

namespace posix {

using namespace ring;

namespace {

// Where the other side stands is looked at every this many rounds (a load of a shared word).
constexpr int kLookEvery = 16;
// A hand-over that took longer than this let another program run a time slice, and one after
// which the wait still waits did not reach the other side (it runs in another scheduling group,
// a session of its own, where a yield does not reach): handing over is then no quicker than
// sleeping, and the next 16, 32, ... up to kMaxSkip waits sleep instead.
constexpr int64_t kSlowHandOverNs = 50000;
constexpr int kFirstSkip = 16;
constexpr int kMaxSkip = 4096;

uint32_t processorNow() {
  int cpu = sched_getcpu();  // the C library reads it from the thread's restartable area
  return cpu >= 0 ? static_cast<uint32_t>(cpu) + 1 : 0;
}

}  // namespace

void PipeRing::Patience::present(uint32_t* word) {
  uint32_t here = processorNow();
  if (at(word).load(std::memory_order_relaxed) != here) at(word).store(here, std::memory_order_relaxed);
}

bool PipeRing::Patience::again() {
  if (!look_ || round_ >= kSpins) return false;
  if (round_++ % kLookEvery != 0) {
    relax();
    return true;
  }
  uint32_t peer = at(peer_).load(std::memory_order_relaxed);
  if (peer == 0) return false;  // the other side sleeps: it needs a wake-up, not a spin
  if (peer != processorNow()) {
    relax();
    return true;
  }
  return handOver();
}

bool PipeRing::Patience::handOver() {
  if (int skip = ring_.yieldSkip_.load(std::memory_order_relaxed); skip > 0) {
    ring_.yieldSkip_.store(skip - 1, std::memory_order_relaxed);
    return false;
  }
  if (handedOver_) {  // the last hand-over did not bring what this wait waits for
    backOff();
    return false;
  }
  handedOver_ = true;
  int64_t before = nowNs();
  sched_yield();
  if (nowNs() - before > kSlowHandOverNs) backOff();
  else ring_.yieldBackoff_.store(0, std::memory_order_relaxed);
  return true;
}

void PipeRing::Patience::backOff() {
  int backoff = ring_.yieldBackoff_.load(std::memory_order_relaxed);
  backoff = backoff == 0 ? kFirstSkip : std::min(backoff * 2, kMaxSkip);
  ring_.yieldBackoff_.store(backoff, std::memory_order_relaxed);
  ring_.yieldSkip_.store(backoff, std::memory_order_relaxed);
}

}  // namespace posix
