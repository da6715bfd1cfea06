#include "pipe_ring_patience.h"

#include <sched.h>

namespace posix {

using namespace ring;

namespace {

// Where the other side stands is looked at every this many rounds (a load of a shared word).
constexpr int kLookEvery = 16;
// A hand-over that took longer than this let another program run a time slice, and one after
// which the wait still waits did not reach the other side (it runs in another scheduling group,
// a session of its own, where a yield does not reach): handing over is then no quicker than
// sleeping, and the next waits sleep instead (SkipBackoff).
constexpr int64_t kSlowHandOverNs = 50000;
// One hand-over in this many is timed. Two clock reads cost some 50 ns, and on one processor a
// hand-over per side comes with every ring's worth (a few microseconds); one that lets another
// program run lasts a time slice, and such a turn repeats, so a sample finds it within this
// many hand-overs.
constexpr uint32_t kTimeEvery = 8;
// How long after waking the other side a waiter looks for its answer: a wake-up reaches a
// process on another, busy processor within some 15-30 us on a virtual machine, and the answer
// (a copy of at most a ring) follows at once.
constexpr int64_t kAnswerNs = 100000;

uint32_t processorNow() {
  int cpu = sched_getcpu();  // the C library reads it from the thread's restartable area
  return cpu >= 0 ? static_cast<uint32_t>(cpu) + 1 : 0;
}

}  // namespace

PipeRing::Patience::~Patience() {
  if (answer_ == Answer::kAwaiting) ring_.answers_.paid();
}

void PipeRing::Patience::present(uint32_t* word) {
  uint32_t here = processorNow();
  if (at(word).load(std::memory_order_relaxed) != here) at(word).store(here, std::memory_order_relaxed);
}

void PipeRing::Patience::sleeping() {
  // The answer did not come in time (a wait that is woken and looks again starts afresh).
  if (answer_ == Answer::kAwaiting) {
    ring_.answers_.missed();
    answer_ = Answer::kMissed;
  }
  const uint32_t here = processorNow();
  at(mine_).store(here != 0 ? here | PX_PIPE_AT_ASLEEP : 0);
}

bool PipeRing::Patience::again() {
  if (!look_) return false;
  if (round_++ % kLookEvery != 0) {
    relax();
    return true;
  }
  const uint32_t peer = at(peer_).load(std::memory_order_relaxed);
  const uint32_t here = processorNow();
  if ((peer & PX_PIPE_AT_ASLEEP) != 0) return awaitAnswer(peer & ~PX_PIPE_AT_ASLEEP, here);
  if (peer == 0) return false;
  if (peer != here) {
    // Awake: it answers now, unless it was preempted or does other work for long.
    if (round_ > kSpins && !(answer_ == Answer::kAwaiting && answerDue())) return false;
    relax();
    return true;
  }
  return handOver();
}

bool PipeRing::Patience::answerDue() const {
  const int64_t woke = ring_.wokeOtherSideAt_.load(std::memory_order_relaxed);
  return woke != 0 && nowNs() - woke < kAnswerNs;
}

bool PipeRing::Patience::awaitAnswer(uint32_t peer, uint32_t here) {
  // Unknown, it may run here too: sleeping is safe.
  if (peer == 0 || answer_ == Answer::kSkipped || answer_ == Answer::kMissed || !answerDue())
    return false;
  // Woken onto this processor, it waits for this side to leave it: hand it over.
  if (peer == here) return handOver();
  if (answer_ == Answer::kUnasked) {
    if (ring_.answers_.skipping()) {
      answer_ = Answer::kSkipped;
      return false;
    }
    answer_ = Answer::kAwaiting;
  }
  relax();
  return true;
}

bool PipeRing::Patience::handOver() {
  if (ring_.handOvers_.skipping()) return false;
  if (handedOver_) {  // the last hand-over did not bring what this wait waits for
    ring_.handOvers_.missed();
    return false;
  }
  handedOver_ = true;
  const uint32_t made = ring_.handOversMade_.load(std::memory_order_relaxed);
  ring_.handOversMade_.store(made + 1, std::memory_order_relaxed);
  const bool timed = made % kTimeEvery == 0;
  const int64_t before = timed ? nowNs() : 0;
  sched_yield();
  if (!timed) return true;
  if (nowNs() - before > kSlowHandOverNs) ring_.handOvers_.missed();
  else ring_.handOvers_.paid();
  return true;
}

}  // namespace posix
