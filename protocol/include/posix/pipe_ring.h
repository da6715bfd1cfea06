// Reading and writing the shared page of a pipe (pipe_page.h) by its rules: the one
// implementation that the server's Fifo and the client library both use, so that both sides
// take the locks, publish the counters and wake each other the same way.
//
// Every value read from the page is checked before it is used: a page written by a process
// that ignores the rules can make the ring report itself corrupt, never make a caller copy
// outside the ring or wait past its time-out.
#pragma once

#include <cstdint>
#include <vector>

#include "posix/pipe_page.h"

namespace posix {

class PipeRing {
 public:
  static constexpr int kForever = -1;

  // Why a read or write stopped.
  enum class End {
    kDone,         // everything asked was moved (a read: at least one byte)
    kEof,          // a read found nothing and every write end has closed
    kBroken,       // a write found every read end closed
    kTimedOut,     // the time-out passed (0: the call would have had to wait)
    kInterrupted,  // a host signal handler ran while the call waited (only when asked for)
    kCorrupt,      // the page breaks the rules: its counters are impossible
  };
  struct Result {
    uint64_t count = 0;
    End end = End::kDone;
  };

  // The page's bytes at `page`, with a ring of `ringSize` bytes (the size the server gave; the
  // caller checks valid() on a page it did not make). Locks are taken as `token`. With
  // `stopOnSignal`, a wait that a signal handler interrupts ends with kInterrupted.
  PipeRing(void* page, uint32_t ringSize, uint32_t token, bool stopOnSignal);

  // Makes a fresh page (the server, once, before the page is shared).
  void format();
  bool valid() const;
  uint32_t ringSize() const { return ringSize_; }

  // Writes up to `n` bytes, waiting for room up to `timeoutMs` (one deadline for the call). At
  // most ringSize bytes go in whole or not at all; more go in piece by piece as room appears.
  Result write(const void* bytes, uint64_t n, int timeoutMs);
  // Waits up to `timeoutMs` for a byte or end-of-file, then takes what is buffered, up to `n`.
  Result read(void* bytes, uint64_t n, int timeoutMs);
  // Takes what is buffered, up to `n`, without waiting for bytes; waits up to `lockTimeoutMs`
  // for another reader to finish.
  Result readNow(void* bytes, uint64_t n, int lockTimeoutMs);
  // Waits until `count` bytes (at most ringSize) are buffered or end-of-file is set: true; false
  // once the pipe is broken or the time-out passed.
  bool waitData(uint64_t count, int timeoutMs);

  uint32_t flags() const;
  // Bytes buffered now (the ring size when the page is corrupt).
  uint64_t buffered() const;
  // Whether the counters are impossible (more buffered than the ring holds).
  bool corrupt() const { return used() > ringSize_; }

  // Only the server: sets PX_PIPE_EOF or PX_PIPE_BROKEN and wakes everyone who waits.
  void setFlags(uint32_t bits);
  // Only the server: frees the locks and sleeper slots that `token` still holds (its process
  // has gone).
  void release(uint32_t token);

  // The tokens in the write lock and the read lock now (0: free).
  struct Locks {
    uint32_t write;
    uint32_t read;
  };
  Locks locks() const;

  // Who sleeps in a read (waiting for bytes) or a write (waiting for room) now.
  struct Sleeper {
    uint32_t token;
    bool writing;
  };
  std::vector<Sleeper> sleepers() const;

 private:
  struct Deadline;
  bool lock(uint32_t* word, const Deadline& deadline);
  void unlock(uint32_t* word);
  // Waits on `word` while it still holds `seen`, counting itself in `waiters`: kDone when woken
  // (or the word had moved on), kTimedOut once the deadline passed, kInterrupted when a signal
  // handler ran and stopOnSignal_ is set.
  // A non-zero `sleeper` is listed in a sleeper slot for the time of the wait.
  End waitOn(uint32_t* word, uint32_t seen, uint32_t* waiters, const Deadline& deadline,
             uint32_t sleeper);
  // Claims a free sleeper slot for `sleeper`; null when all are taken.
  uint32_t* listSleeper(uint32_t sleeper);
  void bump(uint32_t* word, uint32_t* waiters);
  // Waits until `count` bytes (at most ringSize) are buffered or end-of-file is set (kDone);
  // kBroken, kCorrupt, or how the wait ended. Looks again a few times before sleeping with
  // `spin`.
  End awaitData(uint64_t count, const Deadline& deadline, bool spin);
  // Takes up to `n` buffered bytes under the read lock (waiting for the lock until `deadline`).
  Result take(void* bytes, uint64_t n, const Deadline& deadline);
  // Buffered bytes from the counters, or a value above ringSize_ when they are impossible.
  uint64_t used() const;
  void copyIn(uint64_t at, const uint8_t* from, uint64_t n);
  void copyOut(uint64_t at, uint8_t* to, uint64_t n);

  px_pipe_page* const page_;
  uint8_t* const ring_;
  const uint32_t ringSize_;
  const uint32_t token_;
  const bool stopOnSignal_;
};

}  // namespace posix
