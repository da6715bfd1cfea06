// Reading and writing the shared page of a pipe (pipe_page.h) by its rules: the one
// implementation that the server's Fifo and the client library both use, so that both sides
// take the locks, publish the counters and wake each other the same way.
//
// Every value read from the page is checked before it is used: a page written by a process
// that ignores the rules can make the ring report itself corrupt, never make a caller copy
// outside the ring or wait past its time-out.
//
// A client's copies are restartable where the host allows (restartable_copy.h): its lock word
// then carries PX_PIPE_LOCK_RESTARTABLE, and the server may take the lock over while every
// thread of the client is stopped (recover()), so that a process stopped in the middle of a
// copy holds up no other reader or writer of the pipe. One thread of a process at a time takes
// each lock (the ring's own turn per lock), so that a thread finding the lock word holding its
// process's value knows whether the lock is its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "posix/pipe_page.h"
#include "posix/skip_backoff.h"

namespace posix {

struct CopyPlan;

class PipeRing {
 public:
  static constexpr int kForever = -1;

  // Who uses the ring: the server (never stopped, never taken over) or a client.
  enum class Holder { kServer, kClient };

  // Why a read or write stopped.
  enum class End {
    kDone,         // everything asked was moved (a read: at least one byte)
    kEof,          // a read found nothing and every write end has closed
    kBroken,       // a write found every read end closed
    kTimedOut,     // the time-out passed (0: the call would have had to wait)
    kInterrupted,  // a host signal handler ran while a client's call waited
    kCorrupt,      // the page breaks the rules: its counters are impossible
  };
  struct Result {
    uint64_t count = 0;
    End end = End::kDone;
  };

  // The page's bytes at `page`, with a ring of `ringSize` bytes (the size the server gave; the
  // caller checks valid() on a page it did not make). Locks are taken as `token`. A client's
  // waits end with kInterrupted when a signal handler runs.
  PipeRing(void* page, uint32_t ringSize, uint32_t token, Holder holder);

  // Called, at most every kStuckMs, while a lock this ring waits for stays with one holder
  // that long (true: the write lock); whoever can look at that holder may then recover() it.
  // Set before the ring is used.
  void onStuckLock(std::function<void(bool writeLock)> stuck) { stuck_ = std::move(stuck); }
  static constexpr int kStuckMs = PX_PIPE_STUCK_MS;

  // Makes a fresh page (the server, once, before the page is shared).
  void format();
  bool valid() const;
  uint32_t ringSize() const { return ringSize_; }

  // Writes up to `n` bytes, waiting for room up to `timeoutMs` (one deadline for the call). At
  // most ringSize bytes go in whole or not at all; more go in piece by piece as room appears.
  Result write(const void* bytes, uint64_t n, int timeoutMs);
  // The same without any wait, for room or for the write lock: what fits now goes in (whole, for
  // at most ringSize bytes); kTimedOut when more is left.
  Result writeNow(const void* bytes, uint64_t n);
  // Waits up to `timeoutMs` for a byte or end-of-file, then takes what is buffered, up to `n`.
  Result read(void* bytes, uint64_t n, int timeoutMs);
  // Takes what is buffered, up to `n`, without waiting for bytes; waits up to `lockTimeoutMs`
  // for another reader to finish.
  Result readNow(void* bytes, uint64_t n, int lockTimeoutMs);
  // Waits until `count` bytes (at most ringSize) are buffered or end-of-file is set: true; false
  // once the pipe is broken or the time-out passed.
  bool waitData(uint64_t count, int timeoutMs);

  // A wait that the caller does not sleep in itself but hands to whoever watches futex words for
  // it: the word, the value it held, and the waiter count the caller is counted in until
  // disarm(), so that whoever changes the word also wakes the watcher.
  struct Armed {
    uint32_t* word = nullptr;
    uint32_t seen = 0;
    uint32_t* waiters = nullptr;
    uint32_t lockHolder = 0;  // a wait for a lock: the value the lock word held; else 0
  };
  // Arms the wait of a reader (`writing` false) that found nothing, or of a writer that needs
  // `need` bytes of room: on lock_seq while that side's lock is held by another, else on
  // data_seq or room_seq, marking this side asleep (so the other side does not spin for it).
  // False, and nothing counted, when there is nothing to wait for any more (the lock came
  // free, bytes or room came, a flag is set, or the page is corrupt): the caller looks again.
  bool arm(bool writing, uint64_t need, Armed* armed);
  // Counts an armed waiter out again.
  void disarm(const Armed& armed);

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

  // What the server knows of the holder of a token.
  enum class HolderState {
    kNobody,   // no living holder has the token: a lock word holding it is forged or stale
    kRunning,  // a holder that may be inside a copy now
    kStopped,  // a holder all of whose threads are stopped
  };
  // Only the server: frees the write lock (or the read lock) when it holds a token nobody has,
  // or takes it over from a stopped holder whose copies are restartable. `holder` is asked
  // what a token's holder is doing, twice for a take-over (before and after the lock word is
  // marked PX_PIPE_LOCK_TAKING). True when the lock was freed.
  bool recover(bool writeLock, const std::function<HolderState(uint32_t token)>& holder);

  // Who sleeps in a read (waiting for bytes) or a write (waiting for room) now.
  struct Sleeper {
    uint32_t token;
    bool writing;
  };
  std::vector<Sleeper> sleepers() const;

 private:
  struct Deadline;
  class Patience;
  // The value this thread's lock words hold: the token, flagged when its copies are
  // restartable.
  uint32_t heldValue() const;
  // Takes this process's turn at `word`, then `word` as `held`, waiting until `deadline`:
  // kDone (unlock() gives both back), kTimedOut or kInterrupted.
  End lock(uint32_t* word, uint32_t held, const Deadline& deadline);
  // Frees `word` when it still holds `held`, wakes who waits for a lock, and gives the turn
  // back.
  void unlock(uint32_t* word, uint32_t held);
  std::mutex* turnOf(uint32_t* word);
  // Takes `turn`, waiting until `deadline` (at least a millisecond); false when it could not.
  static bool takeTurn(std::mutex& turn, const Deadline& deadline);
  // Whether `word` still holds `held` (waiting out a take-over under way, which settles within
  // microseconds): a holder that finds it so has held the lock without a break, and what it
  // read of the counters since it took it is sound; one that does not was taken over while
  // stopped and read counters that moved on.
  bool stillHeld(uint32_t* word, uint32_t held);
  // Copies the plan's bytes and publishes its counter while `word` holds `held`: false when
  // the lock was taken over meanwhile (nothing published; the caller takes the lock again).
  bool publish(CopyPlan& plan);
  // Waits on `word` while it still holds `seen`, counting itself in `waiters`: kDone when woken
  // (or the word had moved on), kTimedOut once the deadline passed, kInterrupted when a signal
  // handler ran and the holder is a client.
  // A non-zero `sleeper` is listed in a sleeper slot for the time of the wait.
  End waitOn(uint32_t* word, uint32_t seen, uint32_t* waiters, const Deadline& deadline,
             uint32_t sleeper);
  // Claims a free sleeper slot for `sleeper`; null when all are taken.
  uint32_t* listSleeper(uint32_t sleeper);
  // Moves `word` and wakes whoever waits on it: true when somebody was counted there.
  bool bump(uint32_t* word, uint32_t* waiters);
  // bump() of the word the other side waits on (data_seq for a writer, room_seq for a reader),
  // noting when it woke somebody: that side answers soon, and Patience waits for the answer.
  void wakeOtherSide(uint32_t* word, uint32_t* waiters);
  // write() and writeNow(): waits for room until `deadline` and for the lock until
  // `lockDeadline`, looking again before it sleeps while `spin`.
  Result put(const void* bytes, uint64_t n, const Deadline& deadline, const Deadline& lockDeadline,
             bool spin);
  // Waits until `count` bytes (at most ringSize) are buffered or end-of-file is set (kDone);
  // kBroken, kCorrupt, or how the wait ended. Looks again a few times before sleeping with
  // `spin`.
  End awaitData(uint64_t count, const Deadline& deadline, bool spin);
  // Takes up to `n` buffered bytes under the read lock (waiting for the lock until `deadline`).
  Result take(void* bytes, uint64_t n, const Deadline& deadline);
  // Buffered bytes from the counters, or a value above ringSize_ when they are impossible.
  uint64_t used() const;
  // The copy of `n` bytes at ring position `pos` from `user` (`writing`) or to it, published as
  // the new tail or head under the write or read lock held as `held`.
  CopyPlan planAt(uint64_t pos, uint64_t n, uint8_t* user, bool writing, uint32_t held);

  px_pipe_page* const page_;
  uint8_t* const ring_;
  const uint32_t ringSize_;
  const uint32_t token_;
  const Holder holder_;
  std::function<void(bool)> stuck_;  // set before use, then only read
  // This process's turn at each lock (0 write, 1 read): held by the thread that takes the lock
  // word, from before it takes it until after it frees it.
  std::mutex turn_[2];
  // Whether a waiter may hand its processor to the side it waits for (Patience): a hand-over
  // that gave the processor to somebody else for long, or after which the wait still waited,
  // makes the next waits sleep instead.
  SkipBackoff handOvers_;
  // Hand-overs made, of which one in Patience's kTimeEvery is timed. A hint, so relaxed.
  std::atomic<uint32_t> handOversMade_{0};
  // When this process last woke the other side (wakeOtherSide), in monotonic nanoseconds; and
  // whether a wait looks for its answer, after waits that it did not reach in time (Patience).
  // Hints, so relaxed.
  std::atomic<int64_t> wokeOtherSideAt_{0};
  SkipBackoff answers_;
};

}  // namespace posix
