// One link's turns on the pool's threads.
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
#include <sys/epoll.h>

#include "file/host_fd.h"
#include "multiplex_pool.h"

namespace MuxPoolInside {

namespace {

thread_local uint64_t t_servedPeer = 0;
thread_local ChnLink* t_servedLink = nullptr;  // held by the turn's MuxServed
thread_local MuxServed* t_turn = nullptr;      // the link whose turn the calling thread holds

}  // namespace

void Pool::take(uint64_t data) {
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

void Pool::hold(const Ref<MuxServed>& s, Step first) {
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

void Pool::end(const Ref<MuxServed>& s) {
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

bool Pool::watch(MuxServed& s, int op, uint32_t bits) {
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

}  // namespace MuxPoolInside

using Libraries::Service::Multiplex;
using MuxPoolInside::t_servedLink;
using MuxPoolInside::t_servedPeer;
using MuxPoolInside::t_turn;

uint64_t ChnLink::servedPeerPid() { return t_servedPeer; }
ChnLink* ChnLink::served() { return t_servedLink; }

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

}  // namespace Libraries::Service
