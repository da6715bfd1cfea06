// The ring's two locks: taking and freeing them, publishing a copy while holding one, and what
// the server does about a lock whose holder has gone, never existed, or is stopped.
//
// A lock word holds 0 (free), the holder's value (its token, with PX_PIPE_LOCK_RESTARTABLE
// when its copies are restartable), or PX_PIPE_LOCK_TAKING while the server takes a stopped
// holder's lock over. Freeing is a compare-and-swap from the holder's own value, so a holder
// whose lock was taken over frees nothing of its successor's.
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "pipe_ring_internal.h"
#include "restartable_copy.h"

namespace posix {

using namespace ring;

uint32_t PipeRing::heldValue() const {
  if (holder_ == Holder::kClient && restartableCopies()) return token_ | PX_PIPE_LOCK_RESTARTABLE;
  return token_;
}

PipeRing::End PipeRing::lock(uint32_t* word, uint32_t held, const Deadline& deadline) {
  // The threads of one process take the page's lock one at a time (see turn_).
  std::mutex* turn = turnOf(word);
  if (!takeTurn(*turn, deadline)) return End::kTimedOut;
  uint32_t stuckOn = 0;
  int64_t stuckSince = 0;
  for (int round = 0;; ++round) {
    uint32_t expected = 0;
    if (at(word).compare_exchange_strong(expected, held)) return End::kDone;
    if (round < kLockSpins) {
      relax();
      continue;
    }
    uint32_t seen = at(&page_->lock_seq).load();
    uint32_t holder = at(word).load();
    if (holder == 0) continue;
    // While this thread has the turn, no other thread of this process holds the lock: a word
    // holding this process's own value was written by someone else, and holds nothing.
    if (holder == held && turnOf(word) != nullptr) {
      if (at(word).compare_exchange_strong(holder, 0)) bump(&page_->lock_seq, &page_->lock_waiters);
      continue;
    }
    // A holder that keeps the lock this long is preempted, stopped, gone or forged: whoever
    // knows the holders is asked to look (at most every kStuckMs).
    const int64_t stuckNs = int64_t{kStuckMs} * 1000000;
    int64_t now = nowNs();
    if (holder != stuckOn) {
      stuckOn = holder;
      stuckSince = now;
    } else if (stuck_ && now - stuckSince >= stuckNs) {
      stuck_(word == &page_->write_lock);
      stuckSince = now;
      continue;
    }
    End waited = waitOn(&page_->lock_seq, seen, &page_->lock_waiters,
                        stuck_ ? deadline.within(stuckSince + stuckNs - now) : deadline, 0);
    if (waited == End::kDone || (waited == End::kTimedOut && deadline.left() > 0)) continue;
    turn->unlock();
    return waited;
  }
}

void PipeRing::unlock(uint32_t* word, uint32_t held) {
  uint32_t expected = held;
  if (at(word).compare_exchange_strong(expected, 0)) bump(&page_->lock_seq, &page_->lock_waiters);
  turnOf(word)->unlock();
}

std::mutex* PipeRing::turnOf(uint32_t* word) { return &turn_[word == &page_->write_lock ? 0 : 1]; }

bool PipeRing::takeTurn(std::mutex& turn, const Deadline& deadline) {
  if (turn.try_lock()) return true;
  if (deadline.forever) {
    turn.lock();
    return true;
  }
  // Another thread of this process takes or holds the lock: it holds the turn for a copy, or
  // for as long as it waits for the lock itself. A call that may not wait still waits for
  // that other thread's copy (1 ms).
  const Deadline until = deadline.left() >= 1000000 ? deadline : Deadline(1);
  for (int64_t pause = 1000; until.left() > 0; pause = std::min<int64_t>(pause * 2, 1000000)) {
    if (turn.try_lock()) return true;
    timespec nap{0, static_cast<long>(std::min(pause, until.left()))};
    nanosleep(&nap, nullptr);
  }
  return turn.try_lock();
}

bool PipeRing::stillHeld(uint32_t* word, uint32_t held) {
  uint32_t now;
  while ((now = at(word).load()) == PX_PIPE_LOCK_TAKING) sched_yield();
  return now == held;
}

bool PipeRing::publish(CopyPlan& plan) {
  if ((plan.held & PX_PIPE_LOCK_RESTARTABLE) == 0) {
    std::memcpy(plan.to0, plan.from0, plan.size0);
    std::memcpy(plan.to1, plan.from1, plan.size1);
    at(plan.counter).store(plan.value);
    return true;
  }
  for (;;) {
    CopyOutcome outcome = copyRestartable(plan);
    if (outcome == CopyOutcome::kCommitted) return true;
    if (outcome == CopyOutcome::kRestarted) continue;
    if (!stillHeld(plan.lock, plan.held)) return false;
  }
}

void PipeRing::release(uint32_t token) {
  bool freed = false;
  for (uint32_t* word : {&page_->write_lock, &page_->read_lock}) {
    uint32_t value = at(word).load();
    if (value != PX_PIPE_LOCK_TAKING && (value & ~PX_PIPE_LOCK_RESTARTABLE) == token)
      freed |= at(word).compare_exchange_strong(value, 0);
  }
  for (uint32_t& slot : page_->sleepers) {
    uint32_t v = at(&slot).load();
    if (v / 2 == token) at(&slot).compare_exchange_strong(v, 0);
  }
  if (freed) bump(&page_->lock_seq, &page_->lock_waiters);
}

bool PipeRing::recover(bool writeLock, const std::function<HolderState(uint32_t)>& holder) {
  uint32_t* word = writeLock ? &page_->write_lock : &page_->read_lock;
  uint32_t value = at(word).load();
  if (value == 0 || value == PX_PIPE_LOCK_TAKING) return false;
  const uint32_t token = value & ~PX_PIPE_LOCK_RESTARTABLE;
  bool freed = false;
  if (HolderState state = holder(token); state == HolderState::kNobody) {
    freed = at(word).compare_exchange_strong(value, 0);
  } else if (state == HolderState::kStopped && (value & PX_PIPE_LOCK_RESTARTABLE) != 0) {
    // Marked first, then looked at again: a thread of the holder that runs on meanwhile finds
    // the mark inside its copy and copies nothing, and one that stopped inside its copy starts
    // it again from its check when it runs. Only a holder still stopped after the mark loses.
    uint32_t expected = value;
    if (at(word).compare_exchange_strong(expected, PX_PIPE_LOCK_TAKING)) {
      freed = holder(token) == HolderState::kStopped;
      at(word).store(freed ? 0 : value);
    }
  }
  if (freed) bump(&page_->lock_seq, &page_->lock_waiters);
  return freed;
}

}  // namespace posix
