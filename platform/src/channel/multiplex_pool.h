// The pool that serves the links of every multiplex (multiplex_pool.cpp: its threads;
// multiplex_turn.cpp: a link's turns, parked requests handed back, a link's end).
#pragma once

#include <sys/epoll.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <unordered_map>

#include "multiplex_core.h"

namespace MuxPoolInside {

using Libraries::Service::Multiplex;

// Threads of the pool while none waits in a handler: two per core, within 4 and 16.
inline const size_t kPoolTarget = [] {
  size_t cores = std::thread::hardware_concurrency();
  return std::clamp<size_t>(2 * cores, 4, 16);
}();
constexpr int kIdleEndMs = 1000;
constexpr uint32_t kSocketBit = 1;  // the watch of the link's socket
constexpr uint32_t kWakeBit = 2;    // the watch of its eventfd
constexpr uint64_t kPoolWakeKey = 0;  // the pool's own eventfd; links' keys start at 1

// Whether the calling thread is one of the pool's.
extern thread_local bool t_pooled;

// The pool's state, and the body of each of its threads (run()).
class Pool : public Object, public Exec {
 public:
  static Pool& instance();
  bool prepare();
  bool serve(const Ref<Multiplex::Core>& core, const Ref<ChnLink>& link);
  // A pooled thread is about to wait (see Multiplex::Waiting).
  void enterWait();
  void leaveWait() { waiting_.fetch_sub(1); }
  void run() override;
  // Queues a link whose parked request is due; a woken thread takes it (run()).
  void resume(const Ref<MuxServed>& s);

  // Serves the link of an event, unless another thread holds its turn. An event of a link
  // whose turn waits with a parked request asks for the request back: a hang-up or a close
  // then ends it at once.
  void take(uint64_t data);

  enum class Step { kTurn, kWoken, kResume };
  // Serves the link's turns while the calling thread holds its turn, beginning with `first`,
  // until nothing more is to be done (the watches are armed again and the turn is free), its
  // handler parked a request (the turn stays taken) or the link ended.
  void hold(const Ref<MuxServed>& s, Step first);

 private:
  Pool() = default;

  // Threads of the pool that are not waiting inside a handler (a hint: read without the lock).
  int64_t free() const;
  // Ends the calling thread's part in the pool when more than `keep` threads are free; true
  // when it is to end.
  bool leave(size_t keep);
  // Starts a thread when the pool has fewer free than its size.
  void spawn();
  bool fail(MuxServed& s);
  bool makeEpollLocked();
  // Arms (`op` EPOLL_CTL_ADD or _MOD) the watches in `bits` one-shot.
  bool watch(MuxServed& s, int op, uint32_t bits);
  // Takes a link out of the pool, holding its turn, and ends it.
  void end(const Ref<MuxServed>& s);
  void startWorker();

  // Held shared to look a link up (every event), exclusively for everything else.
  std::shared_mutex mutex_;
  // Made under mutex_ before the first link is watched, never closed; read without the lock.
  int epollFd_ = -1;
  // eventfd (a semaphore): a count per parked request handed back (ready_), and one per idle
  // thread when the last link goes.
  int wakeFd_ = -1;
  uint64_t nextKey_ = 1;                                      // guarded by mutex_
  std::unordered_map<uint64_t, Ref<MuxServed>> links_;        // guarded by mutex_
  std::atomic<size_t> linkCount_{0};  // links_.size(), stored under mutex_
  // Threads of the pool, counted before they start; changed under mutex_, so that two threads
  // never both decide to start or to end one.
  std::atomic<size_t> workers_{0};
  std::atomic<size_t> idle_{0};     // threads waiting in epoll for an event
  std::atomic<size_t> waiting_{0};  // threads waiting inside a handler
  std::mutex readyMutex_;
  // Links whose parked request is due, each with a count in wakeFd_.
  std::deque<Ref<MuxServed>> ready_;  // guarded by readyMutex_
};

}  // namespace MuxPoolInside
