// The bounded byte buffer: a ring under one mutex, with one condition variable for each side.
#include "platform/fifo.h"

#include <atomic>
#include <chrono>
#include <cstring>

#include "platform/sync.h"

namespace {
using Clock = std::chrono::steady_clock;

Clock::time_point deadlineOf(uint32_t timeoutMs) {
  return Clock::now() + std::chrono::milliseconds(timeoutMs);
}
}  // namespace

namespace {
std::atomic<uint64_t> g_nextFifoId{1};
}  // namespace

Fifo::Fifo(uint64_t capacity)
    : capacity_(capacity ? capacity : 1),
      id_(g_nextFifoId.fetch_add(1, std::memory_order_relaxed)),
      ring_(new uint8_t[capacity ? capacity : 1]) {}

template <class Pred>
bool Fifo::waitFor(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
                   uint32_t timeoutMs, Pred ready) {
  if (timeoutMs == kForever) {
    cond.wait(lock, ready);
    return true;
  }
  return cond.wait_until(lock, deadlineOf(timeoutMs), ready);
}

void Fifo::copyIn(const uint8_t* p, uint64_t n) {
  uint64_t tail = (head_ + count_) % capacity_;
  uint64_t first = n < capacity_ - tail ? n : capacity_ - tail;
  std::memcpy(ring_.get() + tail, p, first);
  std::memcpy(ring_.get(), p + first, n - first);
  count_ += n;
}

void Fifo::copyOut(uint8_t* p, uint64_t n) {
  uint64_t first = n < capacity_ - head_ ? n : capacity_ - head_;
  std::memcpy(p, ring_.get() + head_, first);
  std::memcpy(p + first, ring_.get(), n - first);
  head_ = (head_ + n) % capacity_;
  count_ -= n;
}

uint64_t Fifo::write(const void* buffer, uint64_t size, uint32_t timeoutMs) {
  if (!buffer || size == 0) return 0;
  const auto* p = static_cast<const uint8_t*>(buffer);
  // One deadline for the whole call, however many pieces a large write takes.
  const Clock::time_point deadline = deadlineOf(timeoutMs == kForever ? 0 : timeoutMs);
  auto waitRoom = [&](std::unique_lock<std::mutex>& lock, uint64_t room) {
    auto ready = [&] { return broken_ || capacity_ - count_ >= room; };
    if (timeoutMs == kForever) {
      writable_.wait(lock, ready);
      return true;
    }
    return writable_.wait_until(lock, deadline, ready);
  };

  std::unique_lock lock(mutex_);
  if (size <= capacity_) {
    // All of it or nothing: a write that fits the buffer is never cut.
    if (!waitRoom(lock, size) || broken_) return 0;
    copyIn(p, size);
    readable_.notify_all();
    return size;
  }
  uint64_t done = 0;
  while (done < size) {
    if (!waitRoom(lock, 1) || broken_) break;
    uint64_t n = capacity_ - count_ < size - done ? capacity_ - count_ : size - done;
    copyIn(p + done, n);
    done += n;
    readable_.notify_all();
  }
  return done;
}

uint64_t Fifo::readMax(void* buffer, uint64_t size) {
  if (!buffer || size == 0) return 0;
  std::lock_guard lock(mutex_);
  uint64_t n = size < count_ ? size : count_;
  if (n == 0) return 0;
  copyOut(static_cast<uint8_t*>(buffer), n);
  writable_.notify_all();
  return n;
}

bool Fifo::waitRead(uint64_t count, uint32_t timeoutMs) {
  const uint64_t target = count < capacity_ ? count : capacity_;
  std::unique_lock lock(mutex_);
  waitFor(readable_, lock, timeoutMs, [&] { return count_ >= target || eof_ || broken_; });
  return count_ >= target || eof_;
}

void Fifo::setEof() {
  {
    std::lock_guard lock(mutex_);
    eof_ = true;
  }
  readable_.notify_all();
  writable_.notify_all();
}

void Fifo::setBroken() {
  {
    std::lock_guard lock(mutex_);
    broken_ = true;
  }
  readable_.notify_all();
  writable_.notify_all();
}

bool Fifo::eof() const {
  std::lock_guard lock(mutex_);
  return eof_;
}

bool Fifo::broken() const {
  std::lock_guard lock(mutex_);
  return broken_;
}

uint64_t Fifo::size() const {
  std::lock_guard lock(mutex_);
  return count_;
}
