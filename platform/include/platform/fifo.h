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
  // A buffer that holds up to `capacity` bytes (1 to 1 MiB); null (and Error set) when its
  // page cannot be made.
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
  // Frees what the client with `token` still holds of the page: its process has gone.
  void releaseHolder(uint32_t token);
  // The pids of the clients that sleep in a read (waiting for bytes) or, with `writing`, in a
  // write (waiting for room) on the page now.
  std::vector<uint64_t> sleeping(bool writing) const;

 private:
  Fifo(uint64_t capacity, int file, void* page, uint64_t pageSize);

  const uint64_t capacity_;
  const uint64_t id_;
  const int file_;          // the page's memory file, kept to hand it out
  void* const page_;
  const uint64_t pageSize_;
  posix::PipeRing ring_;    // the server's own hands on the page, as PX_PIPE_SERVER_TOKEN
  std::atomic<uint32_t> nextToken_{PX_PIPE_SERVER_TOKEN + 1};
  mutable std::mutex holdersMutex_;
  std::map<uint32_t, uint64_t> holders_;  // guarded by holdersMutex_: token -> pid
};
