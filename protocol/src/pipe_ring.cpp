// The shared ring of a pipe: two locks (one writer and one reader at a time), counters published
// with one store after the copy, and futex words for the waits. A waiter counts itself in the
// word's waiter count before it looks at the condition again, and a waker changes the condition,
// then the word, then reads the count: so either the waiter sees the change or the waker sees
// the waiter (all of these accesses are sequentially consistent).
#include "posix/pipe_ring.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <vector>

#include "pipe_ring_internal.h"
#include "pipe_ring_patience.h"
#include "restartable_copy.h"

namespace posix {

using namespace ring;

PipeRing::PipeRing(void* page, uint32_t ringSize, uint32_t token, Holder holder)
    : page_(static_cast<px_pipe_page*>(page)),
      ring_(static_cast<uint8_t*>(page) + PX_PIPE_RING_OFFSET),
      ringSize_(ringSize ? ringSize : 1),
      token_(token),
      holder_(holder) {}

void PipeRing::format() {
  std::memset(page_, 0, sizeof *page_);
  page_->ring_size = ringSize_;
  at(&page_->magic).store(PX_PIPE_PAGE_MAGIC);
}

bool PipeRing::valid() const {
  return at(&page_->magic).load() == PX_PIPE_PAGE_MAGIC &&
         at(&page_->ring_size).load() == ringSize_;
}

uint32_t PipeRing::flags() const { return at(&page_->flags).load(); }

uint64_t PipeRing::used() const {
  // head first: it only grows, so a tail read after it is never behind it in a sound page.
  uint64_t head = at(&page_->head).load();
  return at(&page_->tail).load() - head;
}

uint64_t PipeRing::buffered() const { return std::min<uint64_t>(used(), ringSize_); }

PipeRing::End PipeRing::waitOn(uint32_t* word, uint32_t seen, uint32_t* waiters,
                               const Deadline& deadline, uint32_t sleeper) {
  int64_t left = deadline.left();
  if (left == 0) return End::kTimedOut;
  timespec ts{};
  if (!deadline.forever) {
    ts.tv_sec = left / 1000000000;
    ts.tv_nsec = left % 1000000000;
  }
  uint32_t* slot = sleeper != 0 ? listSleeper(sleeper) : nullptr;
  at(waiters).fetch_add(1);
  long rc = syscall(SYS_futex, word, FUTEX_WAIT, seen, deadline.forever ? nullptr : &ts, nullptr, 0);
  int err = rc == 0 ? 0 : errno;
  at(waiters).fetch_sub(1);
  if (slot != nullptr) {
    uint32_t mine = sleeper;
    at(slot).compare_exchange_strong(mine, 0);
  }
  if (err == EINTR && holder_ == Holder::kClient) return End::kInterrupted;
  if (err == ETIMEDOUT || deadline.left() == 0) return End::kTimedOut;
  return End::kDone;
}

uint32_t* PipeRing::listSleeper(uint32_t sleeper) {
  for (uint32_t& slot : page_->sleepers) {
    uint32_t expected = 0;
    if (at(&slot).compare_exchange_strong(expected, sleeper)) return &slot;
  }
  return nullptr;
}

std::vector<PipeRing::Sleeper> PipeRing::sleepers() const {
  std::vector<Sleeper> found;
  for (uint32_t& slot : page_->sleepers) {
    uint32_t v = at(&slot).load();
    if (v != 0) found.push_back({v / 2, (v & 1) != 0});
  }
  return found;
}

bool PipeRing::bump(uint32_t* word, uint32_t* waiters) {
  at(word).fetch_add(1);
  if (at(waiters).load() == 0) return false;
  syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  return true;
}

void PipeRing::wakeOtherSide(uint32_t* word, uint32_t* waiters) {
  if (bump(word, waiters)) wokeOtherSideAt_.store(nowNs(), std::memory_order_relaxed);
}

CopyPlan PipeRing::planAt(uint64_t pos, uint64_t n, uint8_t* user, bool writing, uint32_t held) {
  // The ring's two pieces: from `pos` to the ring's end at most, then from its start.
  uint64_t offset = pos % ringSize_;
  uint64_t first = std::min<uint64_t>(n, ringSize_ - offset);
  uint8_t* ring[2] = {ring_ + offset, ring_};
  uint8_t* mine[2] = {user, user + first};
  CopyPlan plan{};
  plan.size0 = first;
  plan.size1 = n - first;
  plan.from0 = writing ? mine[0] : ring[0];
  plan.from1 = writing ? mine[1] : ring[1];
  plan.to0 = writing ? ring[0] : mine[0];
  plan.to1 = writing ? ring[1] : mine[1];
  plan.counter = writing ? &page_->tail : &page_->head;
  plan.value = pos + n;
  plan.lock = writing ? &page_->write_lock : &page_->read_lock;
  plan.held = held;
  return plan;
}

PipeRing::Result PipeRing::write(const void* bytes, uint64_t n, int timeoutMs) {
  const Deadline deadline(timeoutMs);
  return put(bytes, n, deadline, deadline.atLeast(kBusyLockMs), timeoutMs != 0);
}

PipeRing::Result PipeRing::writeNow(const void* bytes, uint64_t n) {
  const Deadline now(0);
  return put(bytes, n, now, now, false);
}

PipeRing::Result PipeRing::put(const void* bytes, uint64_t n, const Deadline& deadline,
                               const Deadline& lockDeadline, bool spin) {
  const auto* from = static_cast<const uint8_t*>(bytes);
  const bool whole = n <= ringSize_;
  const uint32_t held = heldValue();
  Patience::present(&page_->writer_at);
  Result result;
  while (result.count < n) {
    // Room this write needs before it copies anything: all of it, or a byte of a large one.
    const uint64_t need = whole ? n : 1;
    End locked = lock(&page_->write_lock, held, lockDeadline);
    if (locked != End::kDone) {
      result.end = locked;
      break;
    }
    uint64_t tail = at(&page_->tail).load();
    uint64_t inUse = tail - at(&page_->head).load();
    uint32_t flags = this->flags();
    if (inUse > ringSize_ && !stillHeld(&page_->write_lock, held)) {
      unlock(&page_->write_lock, held);  // taken over while stopped: the counters moved on
      continue;
    }
    if (inUse > ringSize_ || (flags & PX_PIPE_BROKEN) != 0) {
      unlock(&page_->write_lock, held);
      result.end = inUse > ringSize_ ? End::kCorrupt : End::kBroken;
      break;
    }
    if (ringSize_ - inUse >= need) {
      uint64_t k = std::min<uint64_t>(ringSize_ - inUse, n - result.count);
      CopyPlan plan = planAt(tail, k, const_cast<uint8_t*>(from + result.count), true, held);
      bool published = publish(plan);
      unlock(&page_->write_lock, held);
      if (!published) continue;  // taken over while this thread was stopped: try again
      wakeOtherSide(&page_->data_seq, &page_->data_waiters);
      result.count += k;
      continue;
    }
    unlock(&page_->write_lock, held);
    // Wait for readers to make room.
    End waited = End::kDone;
    Patience patience(*this, &page_->writer_at, &page_->reader_at, spin);
    for (;;) {
      uint32_t seen = at(&page_->room_seq).load();
      uint64_t now = used();
      if (now > ringSize_ || ringSize_ - now >= need || (this->flags() & PX_PIPE_BROKEN) != 0) break;
      if (patience.again()) continue;
      patience.sleeping();
      waited = waitOn(&page_->room_seq, seen, &page_->room_waiters, deadline, token_ * 2 + 1);
      patience.awake();
      if (waited != End::kDone) break;
    }
    if (waited != End::kDone) {
      result.end = waited;
      break;
    }
  }
  return result;
}

PipeRing::Result PipeRing::take(void* bytes, uint64_t n, const Deadline& deadline) {
  Result result;
  const uint32_t held = heldValue();
  for (;;) {
    End locked = lock(&page_->read_lock, held, deadline);
    if (locked != End::kDone) {
      result.end = locked;
      return result;
    }
    uint64_t head = at(&page_->head).load();
    uint64_t avail = at(&page_->tail).load() - head;
    if (avail > ringSize_) {
      bool lost = !stillHeld(&page_->read_lock, held);
      unlock(&page_->read_lock, held);
      if (lost) continue;  // taken over while stopped: the counters moved on
      result.end = End::kCorrupt;
      return result;
    }
    if (avail == 0) {
      unlock(&page_->read_lock, held);
      return result;
    }
    const uint64_t k = std::min(avail, n);
    CopyPlan plan = planAt(head, k, static_cast<uint8_t*>(bytes), false, held);
    bool published = publish(plan);
    unlock(&page_->read_lock, held);
    if (!published) continue;  // taken over while this thread was stopped: try again
    wakeOtherSide(&page_->room_seq, &page_->room_waiters);
    result.count = k;
    return result;
  }
}

PipeRing::Result PipeRing::readNow(void* bytes, uint64_t n, int lockTimeoutMs) {
  if (n == 0) return {};
  return take(bytes, n, Deadline(lockTimeoutMs));
}

PipeRing::Result PipeRing::read(void* bytes, uint64_t n, int timeoutMs) {
  const Deadline deadline(timeoutMs);
  if (n == 0) return {};
  Patience::present(&page_->reader_at);
  for (;;) {
    Result result = take(bytes, n, deadline.atLeast(kBusyLockMs));
    if (result.count > 0 || result.end != End::kDone) return result;
    result.end = awaitData(1, deadline, timeoutMs != 0);
    if (result.end != End::kDone) return result;
    if (used() == 0 && (flags() & PX_PIPE_EOF) != 0) {
      result.end = End::kEof;
      return result;
    }
  }
}

PipeRing::End PipeRing::awaitData(uint64_t count, const Deadline& deadline, bool spin) {
  const uint64_t target = std::max<uint64_t>(1, std::min<uint64_t>(count, ringSize_));
  Patience patience(*this, &page_->reader_at, &page_->writer_at, spin);
  for (;;) {
    uint32_t seen = at(&page_->data_seq).load();
    uint32_t flags = this->flags();
    uint64_t now = used();
    if (now > ringSize_) return End::kCorrupt;
    if (now >= target || (flags & PX_PIPE_EOF) != 0) return End::kDone;
    // A reader waits only while it holds the read end open: broken now means a corrupt page.
    if ((flags & PX_PIPE_BROKEN) != 0) return End::kBroken;
    if (patience.again()) continue;
    patience.sleeping();
    End waited = waitOn(&page_->data_seq, seen, &page_->data_waiters, deadline, token_ * 2);
    patience.awake();
    if (waited != End::kDone) return waited;
  }
}

bool PipeRing::waitData(uint64_t count, int timeoutMs) {
  return awaitData(count, Deadline(timeoutMs), timeoutMs != 0) == End::kDone;
}

bool PipeRing::arm(bool writing, uint64_t need, Armed* armed) {
  uint32_t* lockWord = writing ? &page_->write_lock : &page_->read_lock;
  const uint32_t holder = at(lockWord).load();
  uint32_t* word = writing ? &page_->room_seq : &page_->data_seq;
  uint32_t* waiters = writing ? &page_->room_waiters : &page_->data_waiters;
  if (holder != 0) {
    word = &page_->lock_seq;
    waiters = &page_->lock_waiters;
  }
  // Counted first, then the word read, then the condition looked at again: a change made
  // before the look is seen, one made after it moves the word and finds the count.
  at(waiters).fetch_add(1);
  const uint32_t seen = at(word).load();
  bool wait;
  if (holder != 0) {
    wait = at(lockWord).load() != 0;
  } else {
    const uint64_t now = used();
    const uint32_t flags = this->flags();
    if (writing)
      wait = now <= ringSize_ && ringSize_ - now < need && (flags & PX_PIPE_BROKEN) == 0;
    else
      wait = now == 0 && (flags & (PX_PIPE_EOF | PX_PIPE_BROKEN)) == 0;
  }
  if (!wait) {
    at(waiters).fetch_sub(1);
    return false;
  }
  // Asleep as far as the other side can tell: it need not look again for this side.
  if (holder == 0) at(writing ? &page_->writer_at : &page_->reader_at).store(0);
  *armed = Armed{word, seen, waiters, holder};
  return true;
}

void PipeRing::disarm(const Armed& armed) {
  if (armed.waiters != nullptr) at(armed.waiters).fetch_sub(1);
}

void PipeRing::setFlags(uint32_t bits) {
  at(&page_->flags).fetch_or(bits);
  at(&page_->data_seq).fetch_add(1);
  at(&page_->room_seq).fetch_add(1);
  syscall(SYS_futex, &page_->data_seq, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  syscall(SYS_futex, &page_->room_seq, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace posix
