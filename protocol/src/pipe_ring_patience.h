// How a wait of the pipe ring spends the moments before it sleeps.
//
// Looking again (spinning) pays only while the side a waiter waits for runs on another
// processor: it then answers within microseconds, and a sleep and wake-up cost more. Spinning
// beside a peer that waits for this very processor only keeps it from running, and spinning
// while the peer sleeps for good wastes the time it takes to wake it. So each side of the page
// says where it runs (writer_at, reader_at: the processor + 1, with PX_PIPE_AT_ASLEEP while it
// sleeps), and a waiter
//  - looks again, up to kSpins rounds, while the other side is awake on another processor;
//  - hands its processor over (sched_yield, once per wait) while the other side is awake on this
//    one, so that the two take turns on one processor without a wake-up call each way; a
//    hand-over that let somebody else run for long (another program's turn; one in kTimeEvery
//    is timed), or after which the wait still waits, makes the next ones sleep instead for a
//    while;
//  - looks again for up to kAnswerNs while the other side sleeps on another processor and this
//    process woke it a moment ago: it is on its way, and on a busy machine a waiter that sleeps
//    now turns every hand-over into two wake-ups that each wait for another program's turn (a
//    pipe then moves a few kilobytes per hand-over at a tenth of a kernel pipe's speed). Waits
//    that the answer did not reach in time make the next ones sleep at once for a while;
//  - sleeps at once otherwise.
#pragma once

#include <atomic>
#include <cstdint>

#include "pipe_ring_internal.h"

namespace posix {

class PipeRing::Patience {
 public:
  // A wait of `ring`'s side whose presence word is `mine`, for the side whose word is `peer`;
  // `look` false: sleep at once (a call that may not wait does not look again either).
  Patience(PipeRing& ring, uint32_t* mine, uint32_t* peer, bool look)
      : ring_(ring), mine_(mine), peer_(peer), look_(look) {}
  // A wait that the answer reached in time clears the answer back-off.
  ~Patience();
  Patience(const Patience&) = delete;
  Patience& operator=(const Patience&) = delete;

  // The condition waited for is not met yet: true after a pause or a hand-over (look again),
  // false when the waiter should sleep now.
  bool again();
  // Around the sleep itself: the other side then knows that a spin would not be answered, and
  // where this side will run when it is woken.
  void sleeping();
  void awake() { present(mine_); }

  // Marks the side whose word is `word` awake on this processor.
  static void present(uint32_t* word);

 private:
  bool handOver();
  // The other side sleeps on processor `peer` (+ 1): whether to look again for its answer.
  bool awaitAnswer(uint32_t peer, uint32_t here);
  // Whether this process woke the other side less than kAnswerNs ago.
  bool answerDue() const;

  PipeRing& ring_;
  uint32_t* const mine_;
  uint32_t* const peer_;
  const bool look_;
  int round_ = 0;
  bool handedOver_ = false;
  enum class Answer { kUnasked, kAwaiting, kSkipped, kMissed } answer_ = Answer::kUnasked;
};

}  // namespace posix
