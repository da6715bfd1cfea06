// The shared ring of a pipe: two locks (one writer and one reader at a time), counters published
// with one store after the copy, and futex words for the waits. A waiter counts itself in the
// word's waiter count before it looks at the condition again, and a waker changes the condition,
// then the word, then reads the count: so either the waiter sees the change or the waker sees
// the waiter (all of these accesses are sequentially consistent).
#include "posix/pipe_ring.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <vector>

namespace posix {

namespace {

// Rounds of looking again before a wait goes to sleep (about 20 us on the project's VM): the
// other side usually answers within that on another core, and a sleep and wake-up cost more.
// On a machine whose cores are all busy the spin still pays: a sleeping reader or writer waits
// for the scheduler to pick it again, and a pipe then moves a ring at a time (measured: 0.5 of
// a Linux pipe with a 8 us spin, 6.9 with this one).
constexpr int kSpins = 1000;

template <class T>
std::atomic_ref<T> at(T* field) {
  return std::atomic_ref<T>(*field);
}

void relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

int64_t nowNs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace

struct PipeRing::Deadline {
  explicit Deadline(int timeoutMs)
      : forever(timeoutMs < 0), at(forever ? 0 : nowNs() + int64_t{timeoutMs} * 1000000) {}
  // Nanoseconds left; 0 once passed.
  int64_t left() const {
    if (forever) return INT64_MAX;
    int64_t rest = at - nowNs();
    return rest > 0 ? rest : 0;
  }
  const bool forever;
  const int64_t at;
};

PipeRing::PipeRing(void* page, uint32_t ringSize, uint32_t token, bool stopOnSignal)
    : page_(static_cast<px_pipe_page*>(page)),
      ring_(static_cast<uint8_t*>(page) + PX_PIPE_RING_OFFSET),
      ringSize_(ringSize ? ringSize : 1),
      token_(token),
      stopOnSignal_(stopOnSignal) {}

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
  if (err == EINTR && stopOnSignal_) return End::kInterrupted;
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

PipeRing::Locks PipeRing::locks() const {
  return {at(&page_->write_lock).load(), at(&page_->read_lock).load()};
}

void PipeRing::bump(uint32_t* word, uint32_t* waiters) {
  at(word).fetch_add(1);
  if (at(waiters).load() != 0) syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

bool PipeRing::lock(uint32_t* word, const Deadline& deadline) {
  for (int round = 0;; ++round) {
    uint32_t expected = 0;
    if (at(word).compare_exchange_strong(expected, token_)) return true;
    if (round < kSpins) {
      relax();
      continue;
    }
    uint32_t seen = at(&page_->lock_seq).load();
    if (at(word).load() == 0) continue;
    if (waitOn(&page_->lock_seq, seen, &page_->lock_waiters, deadline, 0) != End::kDone) return false;
  }
}

void PipeRing::unlock(uint32_t* word) {
  at(word).store(0);
  bump(&page_->lock_seq, &page_->lock_waiters);
}

void PipeRing::copyIn(uint64_t pos, const uint8_t* from, uint64_t n) {
  uint64_t offset = pos % ringSize_;
  uint64_t first = std::min<uint64_t>(n, ringSize_ - offset);
  std::memcpy(ring_ + offset, from, first);
  std::memcpy(ring_, from + first, n - first);
}

void PipeRing::copyOut(uint64_t pos, uint8_t* to, uint64_t n) {
  uint64_t offset = pos % ringSize_;
  uint64_t first = std::min<uint64_t>(n, ringSize_ - offset);
  std::memcpy(to, ring_ + offset, first);
  std::memcpy(to + first, ring_, n - first);
}

PipeRing::Result PipeRing::write(const void* bytes, uint64_t n, int timeoutMs) {
  const auto* from = static_cast<const uint8_t*>(bytes);
  const Deadline deadline(timeoutMs);
  const bool whole = n <= ringSize_;
  Result result;
  while (result.count < n) {
    // Room this write needs before it copies anything: all of it, or a byte of a large one.
    const uint64_t need = whole ? n : 1;
    if (!lock(&page_->write_lock, deadline)) {
      result.end = End::kTimedOut;
      break;
    }
    uint64_t tail = at(&page_->tail).load();
    uint64_t inUse = tail - at(&page_->head).load();
    uint32_t flags = this->flags();
    if (inUse > ringSize_ || (flags & PX_PIPE_BROKEN) != 0) {
      unlock(&page_->write_lock);
      result.end = inUse > ringSize_ ? End::kCorrupt : End::kBroken;
      break;
    }
    if (ringSize_ - inUse >= need) {
      uint64_t k = std::min<uint64_t>(ringSize_ - inUse, n - result.count);
      copyIn(tail, from + result.count, k);
      at(&page_->tail).store(tail + k);
      unlock(&page_->write_lock);
      bump(&page_->data_seq, &page_->data_waiters);
      result.count += k;
      continue;
    }
    unlock(&page_->write_lock);
    // Wait for readers to make room, looking again a few times before sleeping.
    End waited = End::kDone;
    for (int round = 0;; ++round) {
      uint32_t seen = at(&page_->room_seq).load();
      uint64_t now = used();
      if (now > ringSize_ || ringSize_ - now >= need || (this->flags() & PX_PIPE_BROKEN) != 0) break;
      if (round < kSpins && timeoutMs != 0) {
        relax();
        continue;
      }
      waited = waitOn(&page_->room_seq, seen, &page_->room_waiters, deadline, token_ * 2 + 1);
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
  if (!lock(&page_->read_lock, deadline)) {
    result.end = End::kTimedOut;
    return result;
  }
  uint64_t head = at(&page_->head).load();
  uint64_t avail = at(&page_->tail).load() - head;
  if (avail > ringSize_) {
    result.end = End::kCorrupt;
  } else if (avail > 0) {
    result.count = std::min(avail, n);
    copyOut(head, static_cast<uint8_t*>(bytes), result.count);
    at(&page_->head).store(head + result.count);
  }
  unlock(&page_->read_lock);
  if (result.count > 0) bump(&page_->room_seq, &page_->room_waiters);
  return result;
}

PipeRing::Result PipeRing::readNow(void* bytes, uint64_t n, int lockTimeoutMs) {
  if (n == 0) return {};
  return take(bytes, n, Deadline(lockTimeoutMs));
}

PipeRing::Result PipeRing::read(void* bytes, uint64_t n, int timeoutMs) {
  const Deadline deadline(timeoutMs);
  if (n == 0) return {};
  for (;;) {
    Result result = take(bytes, n, deadline);
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
  for (int round = 0;; ++round) {
    uint32_t seen = at(&page_->data_seq).load();
    uint32_t flags = this->flags();
    uint64_t now = used();
    if (now > ringSize_) return End::kCorrupt;
    if (now >= target || (flags & PX_PIPE_EOF) != 0) return End::kDone;
    // A reader waits only while it holds the read end open: broken now means a corrupt page.
    if ((flags & PX_PIPE_BROKEN) != 0) return End::kBroken;
    if (spin && round < kSpins) {
      relax();
      continue;
    }
    End waited = waitOn(&page_->data_seq, seen, &page_->data_waiters, deadline, token_ * 2);
    if (waited != End::kDone) return waited;
  }
}

bool PipeRing::waitData(uint64_t count, int timeoutMs) {
  return awaitData(count, Deadline(timeoutMs), timeoutMs != 0) == End::kDone;
}

void PipeRing::setFlags(uint32_t bits) {
  at(&page_->flags).fetch_or(bits);
  at(&page_->data_seq).fetch_add(1);
  at(&page_->room_seq).fetch_add(1);
  syscall(SYS_futex, &page_->data_seq, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  syscall(SYS_futex, &page_->room_seq, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

void PipeRing::release(uint32_t token) {
  bool freed = false;
  for (uint32_t* word : {&page_->write_lock, &page_->read_lock}) {
    uint32_t expected = token;
    freed |= at(word).compare_exchange_strong(expected, 0);
  }
  for (uint32_t& slot : page_->sleepers) {
    uint32_t v = at(&slot).load();
    if (v / 2 == token) at(&slot).compare_exchange_strong(v, 0);
  }
  if (freed) {
    at(&page_->lock_seq).fetch_add(1);
    syscall(SYS_futex, &page_->lock_seq, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
  }
}

}  // namespace posix
