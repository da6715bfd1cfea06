// A bounded byte buffer between writers and readers, with an end-of-file flag (no more writes
// will come) and a broken flag (nobody will read any more). Neither flag is ever cleared.
//
// A write of at most the capacity goes in whole or not at all, so its bytes are never split
// or mixed with another write's; a larger write goes in piece by piece as room appears. Waits
// end at their time-out, or at once when a flag is set. Time-outs are milliseconds;
// 0xFFFFFFFF waits for ever.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/object.h"

class Fifo : public Object {
 public:
  // A buffer that holds up to `capacity` bytes (at least 1).
  explicit Fifo(uint64_t capacity);

  // Copies in up to `size` bytes, waiting for room up to the time-out; answers the count taken.
  // Answers at once, with what was taken so far, once the buffer is broken.
  uint64_t write(const void* buffer, uint64_t size, uint32_t timeoutMs);
  // Copies out up to `size` buffered bytes without waiting; answers the count.
  uint64_t readMax(void* buffer, uint64_t size);
  // Waits until `count` bytes are buffered (a count above the capacity waits for a full
  // buffer), or end-of-file is set even with nothing buffered; true when either holds. Ends
  // early, answering false, when the buffer is broken or the time-out passed.
  bool waitRead(uint64_t count, uint32_t timeoutMs);

  void setEof();
  void setBroken();
  bool eof() const;
  bool broken() const;

  uint64_t capacity() const { return capacity_; }
  // Bytes buffered now.
  uint64_t size() const;
  // A number no other buffer of this process has had, to tell buffers apart in diagnostics.
  uint64_t id() const { return id_; }

 private:
  // Waits on `cond` until `ready` holds or the deadline passes; the caller holds `lock`.
  template <class Pred>
  bool waitFor(std::condition_variable& cond, std::unique_lock<std::mutex>& lock,
               uint32_t timeoutMs, Pred ready);
  void copyIn(const uint8_t* p, uint64_t n);   // the caller holds mutex_ and made room
  void copyOut(uint8_t* p, uint64_t n);        // the caller holds mutex_; n <= count_

  const uint64_t capacity_;
  const uint64_t id_;
  const std::unique_ptr<uint8_t[]> ring_;  // bytes guarded by mutex_
  mutable std::mutex mutex_;
  std::condition_variable readable_;  // bytes arrived, or a flag was set
  std::condition_variable writable_;  // room appeared, or a flag was set
  uint64_t head_ = 0;   // guarded by mutex_: ring index of the oldest byte
  uint64_t count_ = 0;  // guarded by mutex_: bytes buffered
  bool eof_ = false;    // guarded by mutex_
  bool broken_ = false; // guarded by mutex_
};
