// One copy into or out of a pipe's ring together with the store that publishes it, made so
// that a holder of the ring's lock that the host stops in the middle can be taken over.
//
// The copy runs as a restartable sequence: the host moves a thread that is preempted, stopped
// or interrupted by a signal inside it to its restart point before it runs again, so it never
// goes on with a copy it began earlier. Inside the sequence the lock word is checked first: a
// thread whose lock was taken over while it was stopped finds it gone and copies nothing. So
// once every thread of a holder is stopped, another process may free its lock: whatever the
// holder does when it runs again, it writes nothing into the ring until it holds the lock anew.
#pragma once

#include <cstdint>

namespace posix {

struct CopyPlan {
  // The bytes to move, in two pieces (the second for the part that wraps around the ring).
  uint64_t size0;
  const uint8_t* from0;
  uint8_t* to0;
  uint64_t size1;
  const uint8_t* from1;
  uint8_t* to1;
  // The counter that publishes the copy (the ring's head or tail) and its new value.
  uint64_t* counter;
  uint64_t value;
  // The lock word, which must still hold `held` for the copy to happen.
  uint32_t* lock;
  uint32_t held;
};

enum class CopyOutcome {
  kCommitted,  // copied and published
  kLost,       // the lock word no longer held `held`: nothing was published
  kRestarted,  // preempted, stopped or signalled inside: nothing published, try again
};

// Whether the calling thread can make restartable copies (the host runs restartable sequences
// for it); answers the same for the thread's whole life.
bool restartableCopies();

// Makes the copy described by `plan` restartably; call only when restartableCopies().
CopyOutcome copyRestartable(const CopyPlan& plan);

}  // namespace posix
