// The threads that serve the links of every service multiplex in the process: one epoll set
// that watches every link, and a small pool of threads that wait in it. A link costs no thread
// of its own, so the server's threads do not grow with the links its clients hold.
//
// A link's turns, and a request parked and handed back: multiplex_turn.cpp.
//
// The pool has kPoolTarget threads at most while none waits. A handler that waits otherwise
// (for another multiplex's links, or where nothing can be parked) says so with
// Multiplex::Waiting: when no other thread is free, a new one starts, so a client whose
// requests wait never holds up the others. Threads start on demand and end after a second
// without an event (all but one while there are links). The counts are atomics, read as hints; a thread starts or ends only under
// the lock, after looking again. The epoll set is made once and never destroyed, since a thread
// may still wait in it while the process exits. Every registration carries a key that is never
// reused, so an event that arrives after its link ended finds nothing, even when the
// descriptor number was reused.
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>

#include "file/host_fd.h"
#include "multiplex_pool.h"

namespace MuxPoolInside {

thread_local bool t_pooled = false;

Pool& Pool::instance() {
  static Pool* const pool = [] {
    auto* made = new Pool();
    made->addRef();  // held for the life of the process
    return made;
  }();
  return *pool;
}

bool Pool::prepare() {
  std::lock_guard lock(mutex_);
  return makeEpollLocked();
}

bool Pool::serve(const Ref<Multiplex::Core>& core, const Ref<ChnLink>& link) {
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

void Pool::enterWait() {
  waiting_.fetch_add(1);
  if (idle_.load() == 0) spawn();
}

void Pool::run() {
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

void Pool::resume(const Ref<MuxServed>& s) {
  {
    std::lock_guard lock(readyMutex_);
    ready_.push_back(s);
  }
  uint64_t one = 1;
  ssize_t n = ::write(wakeFd_, &one, sizeof one);
  (void)n;  // the counter cannot fill with one count per link
}

int64_t Pool::free() const {
  return static_cast<int64_t>(workers_.load()) - static_cast<int64_t>(waiting_.load());
}

bool Pool::leave(size_t keep) {
  std::lock_guard lock(mutex_);
  if (free() <= static_cast<int64_t>(keep)) return false;
  workers_.fetch_sub(1);
  return true;
}

void Pool::spawn() {
  if (free() >= static_cast<int64_t>(kPoolTarget)) return;  // the common case, without the lock
  {
    std::lock_guard lock(mutex_);
    if (free() >= static_cast<int64_t>(kPoolTarget) || linkCount_.load() == 0) return;
    workers_.fetch_add(1);
  }
  startWorker();
}

bool Pool::fail(MuxServed& s) {
  MuxLinkServe::setWake(*s.link, -1);
  HostFd::close(s.wake);
  return false;
}

bool Pool::makeEpollLocked() {
  return epollFd_ >= 0 || makeWatchedEpoll(&epollFd_, &wakeFd_, EFD_SEMAPHORE);
}

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

}  // namespace MuxPoolInside

using Libraries::Service::Multiplex;
using MuxPoolInside::Pool;
using MuxPoolInside::t_pooled;

bool MuxPool::prepare() { return Pool::instance().prepare(); }

bool MuxPool::serve(const Ref<Multiplex::Core>& core, const Ref<ChnLink>& link) {
  return Pool::instance().serve(core, link);
}

void MuxPool::resume(const Ref<MuxServed>& served) { Pool::instance().resume(served); }

namespace Libraries::Service {

bool Multiplex::onPoolThread() { return t_pooled; }

Multiplex::Waiting::Waiting() : counted_(t_pooled) {
  if (counted_) Pool::instance().enterWait();
}

Multiplex::Waiting::~Waiting() {
  if (counted_) Pool::instance().leaveWait();
}

}  // namespace Libraries::Service
