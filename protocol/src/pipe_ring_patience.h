// How a wait of the pipe ring spends the moments before it sleeps.
//
// Looking again (spinning) pays only while the side a waiter waits for runs on another
// processor: it then answers within microseconds, and a sleep and wake-up cost more. Spinning
// beside a peer that waits for this very processor only keeps it from running, and spinning
// while the peer sleeps wastes the time it takes to wake it. So each side of the page says
// where it runs (writer_at, reader_at: the processor + 1, or 0 while it sleeps), and a waiter
//  - looks again, up to kSpins rounds, while the other side is awake on another processor;
//  - hands its processor over (sched_yield, once per wait) while the other side is awake on this
//    one, so that the two take turns on one processor without a wake-up call each way; a
//    hand-over that let somebody else run for long (another program's turn), or after which the
//    wait still waits, makes the next ones sleep instead for a while;
//  - sleeps at once while the other side sleeps.
#pragma once

#include <cstdint>

#include "pipe_ring_internal.h"

namespace posix {

class PipeRing::Patience {
 public:
  // A wait of `ring`'s side whose presence word is `mine`, for the side whose word is `peer`;
  // `look` false: sleep at once (a call that may not wait does not look again either).
  Patience(PipeRing& ring, uint32_t* mine, uint32_t* peer, bool look)
      : ring_(ring), mine_(mine), peer_(peer), look_(look) {}

  // The condition waited for is not met yet: true after a pause or a hand-over (look again),
  // false when the waiter should sleep now.
  bool again();
  // Around the sleep itself: the other side then knows that a spin would not be answered.
  void sleeping() { ring::at(mine_).store(0); }
  void awake() { present(mine_); }

  // Marks the side whose word is `word` awake on this processor.
  static void present(uint32_t* word);

 private:
  bool handOver();
  // Hand-overs did not pay: the next waits of this ring sleep instead, twice as many each time.
  void backOff();

  PipeRing& ring_;
  uint32_t* const mine_;
  uint32_t* const peer_;
  const bool look_;
  int round_ = 0;
  bool handedOver_ = false;
};

}  // namespace posix
