// The threads that serve the links of every service multiplex in the process: one epoll set
// that watches every link, and a small pool of threads that wait in it. A link costs no thread
// of its own, so the server's threads do not grow with the links its clients hold.
//
// Each link is watched twice, one-shot: its socket (requests, hang-up, room for queued
// replies) and its eventfd (a reply was queued, or the link was dropped). The thread that takes
// an event holds the link's turn and serves one turn, one request at most (multiplex_link.cpp);
// an event of the same link that another thread takes meanwhile only tells the holder to look
// again. The holder arms the watches that fired again before it gives the turn up, still
// holding it, so a link is never served by two threads at once and never waits unwatched; a
// link with more requests queued is reported again at once, behind the links ready meanwhile.
//
// A handler may park its request instead of waiting (Multiplex::park): the thread then gives
// the link's turn up without freeing it, the link's watches are armed again (an event of the
// link asks the request back early: a hang-up, a close), and the park set's watchers
// (multiplex_park.cpp) hand the link back through resume(): a queue and a count on the pool's
// eventfd, taken by whichever thread wakes. That thread resumes the request and goes on with
// the link's turns.
//
// The pool has kPoolTarget threads at most while none waits. A handler that waits otherwise
// (for another multiplex's links, or where nothing can be parked) says so with
// Multiplex::Waiting: when no other thread is free, a new one starts, so a client whose
// requests wait never holds up the others. Threads start on demand and end after a second without an event (all but one while
// there are links). The counts are atomics, read as hints; a thread starts or ends only under
// the lock, after looking again. The epoll set is made once and never destroyed, since a thread
// may still wait in it while the process exits. Every registration carries a key that is never
// reused, so an event that arrives after its link ended finds nothing, even when the
// descriptor number was reused.
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <unordered_map>

#include "file/host_fd.h"
#include "multiplex_core.h"

using Libraries::Service::Multiplex;

namespace {

thread_local uint64_t t_servedPeer = 0;
thread_local ChnLink* t_servedLink = nullptr;  // held by the turn's MuxServed
thread_local bool t_pooled = false;            // the calling thread is one of the pool's
thread_local MuxServed* t_turn = nullptr;      // the link whose turn the calling thread holds

// Threads of the pool while none waits in a handler: two per core, within 4 and 16.
const size_t kPoolTarget = [] {
  size_t cores = std::thread::hardware_concurrency();
  return std::clamp<size_t>(2 * cores, 4, 16);
}();
constexpr int kIdleEndMs = 1000;
constexpr uint32_t kSocketBit = 1;  // the watch of the link's socket
constexpr uint32_t kWakeBit = 2;    // the watch of its eventfd
constexpr uint64_t kPoolWakeKey = 0;  // the pool's own eventfd; links' keys start at 1

// The pool's state, and the body of each of its threads (run()).
class Pool : public Object, public Exec {
 public:
  static Pool& instance() {
    static Pool* const pool = [] {
      auto* made = new Pool();
      made->addRef();  // held for the life of the process
      return made;
    }();
    return *pool;
  }

  bool prepare() {
    std::lock_guard lock(mutex_);
    return makeEpollLocked();
  }

  bool serve(const Ref<Multiplex::Core>& core, const Ref<ChnLink>& link) {
    Ref<MuxServed> s = new MuxServed(core, link);
    s->wake = HostFd::opened(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (s->wake < 0) return false;
    MuxLinkServe::setWake(*link, s->wake);
    {
      std::lock_guard lock(mutex_);
      if (!makeEpollLocked()) return fail(*s);
      s->key = nextKey_++;
      links_.emplace(s->key, s);
      if (!watch(*s, EPOLL_CTL_ADD, kSocketBit | kWakeBit)) {
        links_.erase(s->key);
        return fail(*s);
      }
      linkCount_.store(links_.size());
    }
    if (idle_.load() == 0) spawn();
    return true;
  }

  // A pooled thread is about to wait (see Multiplex::Waiting).
  void enterWait() {
    waiting_.fetch_add(1);
    if (idle_.load() == 0) spawn();
  }
  void leaveWait() { waiting_.fetch_sub(1); }

  void run() override {
    t_pooled = true;
    epoll_event event;
    for (;;) {
      if (free() > static_cast<int64_t>(kPoolTarget) && leave(kPoolTarget)) return;
      // Only the last free thread waits for ever, and only while there are links; the others
      // end after a second without an event.
      const int timeout = linkCount_.load() == 0 || free() > 1 ? kIdleEndMs : -1;
      idle_.fetch_add(1);
      // One event at a time: a thread that waits in a handler holds up no other link's event.
      int n = ::epoll_wait(epollFd_, &event, 1, timeout);
      const bool lastFree = idle_.fetch_sub(1) == 1;
      if (n == 0 && leave(linkCount_.load() == 0 ? 0 : 1)) return;
      if (n <= 0) continue;
      // The last free thread took an event: another starts, so that the next event does not
      // wait behind this turn.
      if (lastFree) spawn();
      if (event.data.u64 != kPoolWakeKey) {
        take(event.data.u64);
        continue;
      }
      // Each woken thread takes one count: a parked request handed back, or "look again".
      uint64_t one;
      if (::read(wakeFd_, &one, sizeof one) != sizeof one) continue;
      Ref<MuxServed> back;
      {
        std::lock_guard lock(readyMutex_);
        if (ready_.empty()) continue;
        back = std::move(ready_.front());
        ready_.pop_front();
      }
      hold(back, Step::kResume);
    }
  }

  void resume(const Ref<MuxServed>& s) {
    {
      std::lock_guard lock(readyMutex_);
      ready_.push_back(s);
    }
    uint64_t one = 1;
    ssize_t n = ::write(wakeFd_, &one, sizeof one);
    (void)n;  // the counter cannot fill with one count per link
  }

 private:
  Pool() = default;

  // Threads of the pool that are not waiting inside a handler (a hint: read without the lock).
  int64_t free() const {
    return static_cast<int64_t>(workers_.load()) - static_cast<int64_t>(waiting_.load());
  }

  // Ends the calling thread's part in the pool when more than `keep` threads are free; true
  // when it is to end.
  bool leave(size_t keep) {
    std::lock_guard lock(mutex_);
    if (free() <= static_cast<int64_t>(keep)) return false;
    workers_.fetch_sub(1);
    return true;
  }

  // Starts a thread when the pool has fewer free than its size.
  void spawn() {
    if (free() >= static_cast<int64_t>(kPoolTarget)) return;  // the common case, without the lock
    {
      std::lock_guard lock(mutex_);
      if (free() >= static_cast<int64_t>(kPoolTarget) || linkCount_.load() == 0) return;
      workers_.fetch_add(1);
    }
    startWorker();
  }

  bool fail(MuxServed& s) {
    MuxLinkServe::setWake(*s.link, -1);
    HostFd::close(s.wake);
    return false;
  }

  bool makeEpollLocked() {
    return epollFd_ >= 0 || makeWatchedEpoll(&epollFd_, &wakeFd_, EFD_SEMAPHORE);
  }

  // Arms (`op` EPOLL_CTL_ADD or _MOD) the watches in `bits` one-shot.
  bool watch(MuxServed& s, int op, uint32_t bits) {
    bool ok = true;
    if (bits & kSocketBit) {
      epoll_event ev{};
      ev.events = EPOLLIN | EPOLLONESHOT | (s.watchingOut ? uint32_t{EPOLLOUT} : 0u);
      ev.data.u64 = s.key * 4 + kSocketBit;
      ok = ::epoll_ctl(epollFd_, op, MuxLinkServe::socketOf(*s.link), &ev) == 0;
    }
    if (bits & kWakeBit) {
      epoll_event ev{};
      ev.events = EPOLLIN | EPOLLONESHOT;
      ev.data.u64 = s.key * 4 + kWakeBit;
      ok = ::epoll_ctl(epollFd_, op, s.wake, &ev) == 0 && ok;
    }
    return ok;
  }

  // Serves the link of an event, unless another thread holds its turn. An event of a link
  // whose turn waits with a parked request asks for the request back: a hang-up or a close
  // then ends it at once.
  void take(uint64_t data) {
    Ref<MuxServed> s;
    {
      std::shared_lock lock(mutex_);  // every thread looks links up at once
      auto it = links_.find(data / 4);
      if (it == links_.end()) return;  // ended since the event was reported
      s = it->second;
    }
    bool parked = false, mine = false;
    {
      std::lock_guard lock(s->turnMutex);
      if (s->ended) return;
      s->disarmed |= static_cast<uint32_t>(data % 4);
      if (s->busy) {
        s->again = true;
        parked = s->parked;
        if (parked) s->heldBack |= static_cast<uint32_t>(data % 4);
      } else {
        s->busy = mine = true;
      }
    }
    if (parked) MuxPark::nudge(*s);
    if (!mine) return;  // another thread holds the turn, or it waits with a parked request
    hold(s, data % 4 == kWakeBit ? Step::kWoken : Step::kTurn);
  }

  enum class Step { kTurn, kWoken, kResume };

  // Serves the link's turns while the calling thread holds its turn, beginning with `first`,
  // until nothing more is to be done (the watches are armed again and the turn is free), its
  // handler parked a request (the turn stays taken) or the link ended.
  void hold(const Ref<MuxServed>& s, Step first) {
    Multiplex::Core::current() = s->core.get();
    t_servedPeer = s->link->peerPid();
    t_servedLink = s->link.get();
    t_turn = s.get();
    bool woken = first == Step::kWoken;
    bool resume = first == Step::kResume;
    for (;;) {
      if (resume) {
        {
          std::lock_guard lock(s->turnMutex);
          s->parked = false;
        }
        Ref<Multiplex::Parked> request = std::move(s->parking.request);
        request->resume();
        resume = false;
      } else if (!MuxLinkServe::turn(*s, woken)) {
        end(s);
        break;
      }
      std::unique_lock lock(s->turnMutex);
      if (s->parking.request) {
        // Watched again meanwhile, so that a hang-up, a close or a reply to flush asks the
        // request back; the link is served on once the request is answered. A watch that
        // fired while the request was parked has asked already: it is armed again only then,
        // or a request the client sent behind this one would ask for it back over and over.
        const uint32_t rearm = s->disarmed & ~s->heldBack;
        watch(*s, EPOLL_CTL_MOD, rearm);
        s->disarmed &= ~rearm;
        s->parked = true;
        lock.unlock();
        MuxPark::add(s);
        break;
      }
      if (s->again) {
        s->again = false;
        woken = (s->disarmed & kWakeBit) != 0;
        continue;
      }
      watch(*s, EPOLL_CTL_MOD, s->disarmed);
      s->disarmed = 0;
      s->heldBack = 0;
      s->busy = false;
      break;
    }
    t_turn = nullptr;
    t_servedLink = nullptr;
    t_servedPeer = 0;
    Multiplex::Core::current() = nullptr;
  }

  // Takes a link out of the pool, holding its turn, and ends it.
  void end(const Ref<MuxServed>& s) {
    {
      std::lock_guard lock(mutex_);
      links_.erase(s->key);
      linkCount_.store(links_.size());
      // The last link went: the threads that wait for ever look again, to count their idle
      // time and end.
      if (links_.empty() && idle_.load() > 0) {
        uint64_t count = idle_.load();
        ssize_t n = ::write(wakeFd_, &count, sizeof count);
        (void)n;  // a full counter wakes them just as well
      }
    }
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, MuxLinkServe::socketOf(*s->link), nullptr);
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, s->wake, nullptr);
    {
      std::lock_guard lock(s->turnMutex);
      s->ended = true;
    }
    MuxLinkServe::end(*s);
    HostFd::close(s->wake);
    s->core->forget(s->link);
    s->core->linkEnded();
  }

  void startWorker();

  // Held shared to look a link up (every event), exclusively for everything else.
  std::shared_mutex mutex_;
  // Made under mutex_ before the first link is watched, never closed; read without the lock.
  int epollFd_ = -1;
  int wakeFd_ = -1;  // eventfd (a semaphore): poked once per idle thread when the last link goes
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

void Pool::startWorker() {
  Ref<Thd> thread = Thd::create(Ref<Exec>(this));
  if (thread) {
    thread->setName("MuxServe");
    if (thread->start()) return;
  }
  // The threads already there serve on; a later event or wait tries again.
  std::lock_guard lock(mutex_);
  workers_.fetch_sub(1);
}

}  // namespace

uint64_t ChnLink::servedPeerPid() { return t_servedPeer; }
ChnLink* ChnLink::served() { return t_servedLink; }

bool MuxPool::prepare() { return Pool::instance().prepare(); }

bool MuxPool::serve(const Ref<Multiplex::Core>& core, const Ref<ChnLink>& link) {
  return Pool::instance().serve(core, link);
}

void MuxPool::resume(const Ref<MuxServed>& served) { Pool::instance().resume(served); }

namespace Libraries::Service {

bool Multiplex::canPark() { return t_turn != nullptr && MuxPark::available(); }

void Multiplex::park(Ref<Parked> request, const uint32_t* word, uint32_t seen,
                     std::chrono::steady_clock::time_point wakeAt) {
  MuxServed::Parking& p = t_turn->parking;
  p.request = std::move(request);
  p.word = word;
  p.seen = seen;
  p.wakeAtNs = std::chrono::duration_cast<std::chrono::nanoseconds>(wakeAt.time_since_epoch()).count();
}

Multiplex::Waiting::Waiting() : counted_(t_pooled) {
  if (counted_) Pool::instance().enterWait();
}

Multiplex::Waiting::~Waiting() {
  if (counted_) Pool::instance().leaveWait();
}

}  // namespace Libraries::Service
