// A bounded byte buffer between writers and readers, with an end-of-file flag (no more writes
// will come) and a broken flag (nobody will read any more). Neither flag is ever cleared.
//
// A write of at most the capacity goes in whole or not at all, so its bytes are never split
// or mixed with another write's; a larger write goes in piece by piece as room appears. Waits
// end at their time-out, or at once when a flag is set. Time-outs are milliseconds;
// 0xFFFFFFFF waits for ever.
//
// The buffer lives in a shared page (posix/pipe_page.h) of a host memory file: attachTo hands
// the page to a client, which then reads and writes it in its own process by the same rules
// (posix::PipeRing) under a token of its own. The flags stay the owner's to set; release frees
// whatever a client that has gone still held.
//
// Tokens are random and distinct among the live ones of the buffer: a client's lives until
// releaseHolder, and the server draws one for each of its own reads, writes and waits. A value
// in a lock that is no live token (a client forged it, or copied a token it saw there) is
// freed whenever a client's token is released and whenever a read or write of the server's
// own runs out of time.
//
// The page is made on first use (a write, a wait for bytes, or handing it out), so a buffer
// that is made and dropped unused costs no memory file. When it cannot be made, the buffer
// ends as if both sides had gone (end-of-file and broken), so that nobody waits on it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "platform/message.h"
#include "platform/object.h"
#include "posix/pipe_ring.h"

class Fifo : public Object {
 public:
  // A buffer that holds up to `capacity` bytes (1 to 1 MiB); null (and Error set) for another
  // capacity.
  static Ref<Fifo> create(uint64_t capacity);
  ~Fifo() override;

  // Copies in up to `size` bytes, waiting for room up to the time-out; answers the count taken.
  // Answers at once, with what was taken so far, once the buffer is broken.
  uint64_t write(const void* buffer, uint64_t size, uint32_t timeoutMs);
  // Copies out up to `size` buffered bytes without waiting for bytes (only, up to a second,
  // for a client's reader to finish its copy); answers the count.
  uint64_t readMax(void* buffer, uint64_t size);
  // Waits until `count` bytes are buffered (a count above the capacity waits for a full
  // buffer), or end-of-file is set even with nothing buffered; true when either holds. Ends
  // early, answering false, when the buffer is broken or the time-out passed.
  bool waitRead(uint64_t count, uint32_t timeoutMs);

  // For a caller that does not wait on its own thread. readNow copies out what is buffered
  // (up to `size`) without waiting for bytes or the read lock; writeNow copies in what fits now
  // (all of a write of at most the capacity, or nothing) without waiting for room or the
  // lock. Either answers the count moved, and arms `armed` (posix::PipeRing::arm) when the call
  // has to wait: for the lock, for bytes (none buffered, no end-of-file), or for room (more of
  // the write is left); disarm() once that wait is over. A lock wait armed again for the same
  // holder after it has held the lock that long is looked at as a stuck lock (recover()).
  using Armed = posix::PipeRing::Armed;
  uint64_t readNow(void* buffer, uint64_t size, Armed* armed);
  uint64_t writeNow(const void* buffer, uint64_t size, Armed* armed);
  void disarm(const Armed& armed);

  void setEof();
  void setBroken();
  bool eof() const;
  bool broken() const;

  uint64_t capacity() const { return capacity_; }
  // Bytes buffered now.
  uint64_t size() const;
  // A number no other buffer of this process has had, to tell buffers apart in diagnostics.
  uint64_t id() const { return id_; }

  // Attaches a descriptor of the page to `out` (SCM_RIGHTS with the reply) and answers the
  // token of the client `pid` that receives it: `token` when it already has one, else a new
  // one; 0 (nothing attached) when none could be made.
  uint32_t attachTo(const Ref<OutMsg>& out, uint64_t pid, uint32_t token = 0);
  // Frees what the client with `token` still holds of the page (its process has gone), and
  // whatever a value that is no live token holds.
  void releaseHolder(uint32_t token);
  // Looks at the holder of the write lock (or the read lock) of the page: frees the lock when
  // it holds a token that nobody holds now, or takes it over when every thread of its holder
  // is stopped and the holder copies restartably (posix/pipe_ring.h). True when it freed it.
  bool recover(bool writeLock);
  // The pids of the clients that sleep in a read (waiting for bytes) or, with `writing`, in a
  // write (waiting for room) on the page now.
  std::vector<uint64_t> sleeping(bool writing) const;

 private:
  struct Page;
  struct Hand;
  explicit Fifo(uint64_t capacity);
  // The page, made now if need be; null when it cannot be made (the flags are then set).
  Page* page();
  // The page if it has been made, else null.
  Page* made() const { return page_.load(std::memory_order_acquire); }
  // Sets flags on the server's side and on the page, if there is one.
  void raise(uint32_t bits);
  // A random token that no client and no call of the server's holds now; the caller holds
  // holdersMutex_.
  uint32_t freshTokenLocked() const;
  // What the holder of `token` is: a live client (stopped or not), one of the server's own
  // calls (running), or nobody.
  posix::PipeRing::HolderState holderOf(uint32_t token) const;
  // Frees the locks and sleeper slots that hold a value which is no live token, and takes a
  // lock over from a stopped holder where it can (recover).
  void sweep(Page* p);

  const uint64_t capacity_;
  const uint64_t id_;
  std::mutex pageMutex_;  // serialises making the page with raising flags
  std::atomic<Page*> page_{nullptr};  // set once, under pageMutex_
  // PX_PIPE_EOF and PX_PIPE_BROKEN as the server set them: the page carries a copy, which a
  // client could overwrite; the server goes by this one.
  std::atomic<uint32_t> flags_{0};
  mutable std::mutex holdersMutex_;
  std::map<uint32_t, uint64_t> holders_;  // guarded by holdersMutex_: token -> pid
  std::vector<uint32_t> serverTokens_;    // guarded by holdersMutex_: the server's calls now
};
