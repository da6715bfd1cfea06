// The two ends of a pipe or named FIFO: streams in front of one shared platform Fifo. The read
// end only reads and the write end only writes; each remembers the outcome of its last call in
// `status`, which a client asks for through the end's status service (PosixFifoSvc).
//
// POSIX pipe semantics follow from the ends' lifetimes: when the write end goes (closeEnd or
// destruction) the Fifo is marked end-of-file, so readers drain what is left and then read 0
// bytes with status kStatusEof; when the read end goes the Fifo is marked broken, so writers
// get 0 bytes with status kStatusBroken. A closed end moves nothing more for links still open
// to it (kStatusNotReadable, kStatusNotWritable): a writer's link kept past the close cannot
// hold off the reader's end-of-file.
//
// Each end has its own monitor: all reads of the read end, and all writes of the write end,
// are serialised by it, entered with the caller's own time-out. The Fifo synchronises the two
// sides with each other.
//
// The ends are waiting streams too: readOrWait and writeOrWait move what they can at once and
// hand a wait for bytes, room or a lock of the shared page to the caller as the page's futex
// word, so that a request that waits holds no thread of the server (the stream resolver parks
// it). They hold the monitor only for the copy, and a call that finds it held looks again a
// moment later.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include <posix/pipe_page.h>

#include "platform/fifo.h"
#include "platform/stream.h"
#include "platform/sync.h"

class PosixFifoBase : public Object,
                      public virtual Interfaces::Stream,
                      public virtual Interfaces::WaitingStream {
 public:
  // Status of an end's last read or write, as the status service answers it.
  enum Status : uint32_t {
    kStatusOk = PX_FIFO_STATUS_OK,
    kStatusEof = PX_FIFO_STATUS_EOF,                  // a read found nothing, the writers gone
    kStatusBroken = PX_FIFO_STATUS_BROKEN,            // a write found the readers gone
    kStatusNotReadable = PX_FIFO_STATUS_NOT_READABLE, // read called on a write end
    kStatusNotWritable = PX_FIFO_STATUS_NOT_WRITABLE, // write called on a read end
    kStatusTimedOut = PX_FIFO_STATUS_TIMED_OUT,       // the monitor or (read only) the first
                                                      // byte did not come in time
  };

  // Bytes every pipe and FIFO buffers.
  static constexpr uint64_t kFifoCapacity = 4096;

  // Marks the shared Fifo as the other end will see this end's departure; nothing without one.
  virtual void closeEnd() = 0;

  // Installs the buffer shared with the other end; done by the creator before the end is used.
  void setFifo(Ref<Fifo> fifo) { fifo_ = std::move(fifo); }
  const Ref<Fifo>& fifo() const { return fifo_; }
  uint32_t status() const { return status_.load(std::memory_order_acquire); }
  // The pids of the processes inside a read or write of this end now: waiting for bytes, for
  // room, or for the end's monitor (for the introspection service).
  std::vector<uint64_t> callers() const;

  // The data side: a plain byte stream that lends no memory.
  uint32_t dataKind() override { return 1; }
  Interfaces::MemDesc map(Ref<Object> /*client*/) override { return {}; }
  void unmap(Ref<Object> /*client*/) override {}
  uint64_t readable() override { return 0; }
  uint64_t control(uint32_t /*code*/, uint64_t /*argument*/) override { return 0; }

  // A wait handed out by readOrWait or writeOrWait is over: the waiter is counted out of the
  // page's word and no longer listed among the callers.
  void endWait(Interfaces::StreamWait* wait) override;

 protected:
  PosixFifoBase() : mon_(Mon::create(2)) {}
  ~PosixFifoBase() override;

  void setStatus(uint32_t status) { status_.store(status, std::memory_order_release); }

  // Lists the peer of the link the calling thread serves for the scope of one read or write.
  class CallerScope {
   public:
    explicit CallerScope(const PosixFifoBase& end);
    ~CallerScope();
    CallerScope(const CallerScope&) = delete;
    CallerScope& operator=(const CallerScope&) = delete;

   private:
    const PosixFifoBase& end_;
    const uint64_t pid_;
  };

  void addCaller(uint64_t pid) const;
  void removeCaller(uint64_t pid) const;
  // readOrWait (`writing` false) or writeOrWait of the end's own direction: readNow or
  // writeNow of the Fifo inside the monitor, entered without waiting.
  uint64_t moveNow(bool writing, Interfaces::MemDesc buffer, uint64_t size,
                   Interfaces::StreamWait* wait);
  // Enters the monitor without waiting (false: the call is to look again in a moment, `wait`
  // says so); handOut turns the Fifo's armed wait into `wait`.
  bool enterNow(Interfaces::StreamWait* wait);
  void handOut(const Fifo::Armed& armed, Interfaces::StreamWait* wait);
  static Fifo::Armed armedOf(const Interfaces::StreamWait& wait);

  // Written by the thread that holds mon_, read by the status service on another thread.
  std::atomic<uint32_t> status_{kStatusOk};
  std::atomic<bool> closed_{false};  // set by closeEnd, never cleared
  Ref<Mon> mon_;
  Ref<Fifo> fifo_;  // set once before the end is shared, then only read
  mutable std::mutex callersMutex_;
  mutable std::vector<uint64_t> callers_;  // guarded by callersMutex_
};

class PosixFifoRead : public PosixFifoBase {
 public:
  static Ref<PosixFifoRead> create() { return new PosixFifoRead(); }

  // Waits up to `timeoutMs` for at least one byte (or end-of-file), then takes what is buffered,
  // up to `size`, without waiting further.
  uint64_t read(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  uint64_t write(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  // Takes what is buffered; hands out the wait for bytes when there is nothing yet.
  uint64_t readOrWait(Interfaces::MemDesc buffer, uint64_t size, Interfaces::StreamWait* wait) override;
  uint64_t writeOrWait(Interfaces::MemDesc buffer, uint64_t size, Interfaces::StreamWait* wait) override;
  // Marks the Fifo broken: no one will read any more.
  void closeEnd() override;
  ~PosixFifoRead() override;

 private:
  PosixFifoRead() = default;
};

class PosixFifoWrite : public PosixFifoBase {
 public:
  static Ref<PosixFifoWrite> create() { return new PosixFifoWrite(); }

  uint64_t read(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  // Puts up to `size` bytes into the Fifo, waiting for room up to `timeoutMs`; may answer fewer.
  uint64_t write(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  uint64_t readOrWait(Interfaces::MemDesc buffer, uint64_t size, Interfaces::StreamWait* wait) override;
  // Puts in what fits; hands out the wait for room when bytes are left.
  uint64_t writeOrWait(Interfaces::MemDesc buffer, uint64_t size, Interfaces::StreamWait* wait) override;
  // Marks the Fifo end-of-file: no more bytes will come.
  void closeEnd() override;
  ~PosixFifoWrite() override;

 private:
  PosixFifoWrite() = default;
};
