// The acceptor of every service multiplex in the process: one thread that waits with epoll on
// all their listening sockets, accepts, admits each link to its multiplex and hands it to the
// pool that serves links (multiplex_pool.cpp). An idle multiplex therefore costs no thread.
//
// Each watched socket is known by a key that is never reused, and the epoll registration
// carries the key, not the socket: an event that arrives after its multiplex was unwatched
// finds no entry and is dropped, even when the descriptor number was reused meanwhile.
// The acceptor uses a socket only under `mutex_` and only while its entry is listed; unwatch()
// unlists it under the same lock before closing it, so a socket is never closed under an
// accept in progress.
//
// Each process may hold Multiplex::kMaxLinksPerProcess links on all multiplexes together; the
// count lives here, since every link of every multiplex is accepted here.
//
// A spare socket stays listed and watched with no core: what it accepts is closed at once. Its
// key does not change when a new multiplex takes it over, so an event reported for the spare
// is simply handled for the new multiplex (whose services refuse a bind to an old id).
//
// The acceptor's state is made on first use and never destroyed: the detached thread may still
// be waiting in epoll while the process exits. The thread itself starts with the first watched
// multiplex and ends after a second with none (its spares then go too), so a process that has
// closed all its multiplexes is back to the threads and files it had before the first.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <unordered_map>
#include <vector>

#include "chn_peer.h"
#include "multiplex_core.h"
#include "file/host_fd.h"
#include "platform/runtime.h"

namespace Libraries::Service {
namespace {

using Clock = std::chrono::steady_clock;

// A listener that cannot accept (short of descriptors) stays readable; it leaves the epoll set
// for this long instead of being retried in a tight loop.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);
// Accepts per listener per round, so that one busy multiplex does not starve the others.
constexpr int kAcceptBatch = 32;
constexpr int kEventsPerWait = 64;
// With no multiplex open for this long the thread ends.
constexpr int kIdleEndMs = 1000;
// The epoll key of the acceptor's own wake-up event; listeners' keys start at 1.
constexpr uint64_t kWakeKey = 0;

struct Listener {
  Ref<Multiplex::Core> core;  // null while the socket is a spare
  int fd;
};

// What a spare socket keeps of the multiplex that served it last.
struct Spare {
  uint64_t key;
  uint64_t id;
  std::string path;
  uint64_t nextBase;  // the service base of the next multiplex on it
};

struct Accepted {
  Ref<Multiplex::Core> core;
  Ref<ChnLink> link;
};

struct Pause {
  uint64_t key;
  Clock::time_point resume;
};

class Acceptor : public Object, public Exec {
 public:
  static Acceptor& instance() {
    static Acceptor* const acceptor = [] {
      auto* made = new Acceptor();
      made->addRef();  // held for the life of the process
      return made;
    }();
    return *acceptor;
  }

  bool watch(const Ref<Multiplex::Core>& core) {
    std::lock_guard lock(mutex_);
    if (!startLocked()) return false;
    const uint64_t key = nextKey_++;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = key;
    if (::epoll_ctl(epollFd_, EPOLL_CTL_ADD, core->listenFd, &ev) != 0) return false;
    listeners_.emplace(key, Listener{core, core->listenFd});
    core->acceptKey = key;
    core->listenFd = -1;
    return true;
  }

  bool reuse(const Ref<Multiplex::Core>& core) {
    std::vector<Spare> foreign;  // spares of another runtime directory: they go
    bool taken = false;
    {
      std::lock_guard lock(mutex_);
      if (spares_.empty()) return false;
      const std::string here = Runtime::path("chn/");
      Runtime::MakingFile making;  // a shut-down has removed the spares' files
      while (!spares_.empty() && !taken) {
        Spare spare = std::move(spares_.back());
        spares_.pop_back();
        auto it = listeners_.find(spare.key);
        if (it == listeners_.end()) continue;
        if (!making.allowed() || spare.path.compare(0, here.size(), here) != 0) {
          foreign.push_back(std::move(spare));
          continue;
        }
        it->second.core = core;
        core->acceptKey = spare.key;
        core->id = spare.id;
        core->socketPath = std::move(spare.path);
        core->serviceBase = spare.nextBase;
        taken = true;
      }
    }
    for (const Spare& spare : foreign) {
      closeListener(spare.key);
      ::unlink(spare.path.c_str());
      Runtime::disownFile(spare.path);
    }
    return taken;
  }

  bool unwatch(Multiplex::Core& core, uint64_t nextBase) {
    Listener gone{nullptr, -1};
    {
      std::lock_guard lock(mutex_);
      auto it = listeners_.find(core.acceptKey);
      if (it == listeners_.end()) return false;
      if (spares_.size() < Multiplex::kSpareSockets && Runtime::MakingFile().allowed()) {
        it->second.core = nullptr;
        spares_.push_back({core.acceptKey, core.id, core.socketPath, nextBase});
        wakeIfIdleLocked();
        return true;
      }
      gone = unlistLocked(it);
    }
    // Unlisted: the acceptor can no longer reach the socket, so it may close outside the lock.
    HostFd::close(gone.fd);
    return false;
  }

  void run() override {
    epoll_event events[kEventsPerWait];
    for (;;) {
      int n = ::epoll_wait(epollFd_, events, kEventsPerWait, waitMs());
      if (n < 0 && errno != EINTR) ::usleep(1000);  // not expected; never spin on it
      resumeDue();
      for (int i = 0; i < n; ++i) {
        if (events[i].data.u64 != kWakeKey) {
          acceptFrom(events[i].data.u64);
          continue;
        }
        uint64_t count;
        ssize_t got = ::read(wakeFd_, &count, sizeof count);
        (void)got;  // the event only says "look again"
      }
      if (n == 0 && endIfIdle()) return;
    }
  }

 private:
  Acceptor() = default;

  // Takes a listener out of the set; the caller closes its socket outside the lock.
  Listener unlistLocked(std::unordered_map<uint64_t, Listener>::iterator it) {
    Listener gone = std::move(it->second);
    listeners_.erase(it);
    // Fails harmlessly for a paused listener, which is out of the set already.
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, gone.fd, nullptr);
    wakeIfIdleLocked();
    return gone;
  }

  // Whether a multiplex is watched (spares do not count).
  bool activeLocked() const { return listeners_.size() > spares_.size(); }

  // The last multiplex went: a thread waiting without a time-out is woken to count its idle
  // time. Only then: creating and closing one multiplex at a time must not cost a wake-up each.
  void wakeIfIdleLocked() {
    if (activeLocked() || !waitsForever_) return;
    waitsForever_ = false;
    uint64_t one = 1;
    ssize_t n = ::write(wakeFd_, &one, sizeof one);
    (void)n;  // a full counter wakes the thread just as well
  }

  void closeListener(uint64_t key) {
    Listener gone{nullptr, -1};
    {
      std::lock_guard lock(mutex_);
      auto it = listeners_.find(key);
      if (it == listeners_.end()) return;
      gone = unlistLocked(it);
    }
    HostFd::close(gone.fd);
  }

  // Makes the epoll set and the wake-up event the first time a multiplex is watched, and the
  // thread whenever none is running; a failed start is tried again by the next watch.
  bool startLocked() {
    if (started_) return true;
    if (!makeEpollLocked()) return false;
    Ref<Thd> thread = Thd::create(Ref<Exec>(this));
    if (!thread) {
      errno = ENOMEM;
      return false;
    }
    thread->setName("MuxAcceptor");
    if (!thread->start()) {
      errno = EAGAIN;
      return false;
    }
    started_ = true;
    return true;
  }

  bool makeEpollLocked() {
    return epollFd_ >= 0 || makeWatchedEpoll(&epollFd_, &wakeFd_, 0);
  }

  // Accepts a batch from one listener under the lock, then hands the links to the pool without
  // it: that may start a thread, which is slow, and other multiplexes' accepts and closes need
  // the lock.
  void acceptFrom(uint64_t key) {
    std::vector<Accepted> batch;
    {
      std::lock_guard lock(mutex_);
      auto it = listeners_.find(key);
      if (it == listeners_.end()) return;  // unwatched since the event was reported
      const Listener& l = it->second;
      DescriptorReserve::refill();
      for (int i = 0; i < kAcceptBatch; ++i) {
        bool fromReserve = false;
        int fd = acceptLink(l.fd, &fromReserve);
        if (fd < 0) {
          if (errno == EINTR || errno == ECONNABORTED) continue;
          if (errno != EAGAIN && errno != EWOULDBLOCK) pauseLocked(key, l.fd);
          break;
        }
        if (!l.core) {  // a spare: as if nobody listened
          HostFd::close(fd);
          if (fromReserve) DescriptorReserve::refill();
          continue;
        }
        ChnPeer peer;
        Ref<Object> ticket;
        bool admitted = admitPeer(fd, *peerLinks_, fromReserve, &peer, &ticket);
        if (fromReserve) DescriptorReserve::refill();
        if (!admitted) continue;
        Ref<ChnLink> link = MuxLinkServe::make(fd, peer, std::move(ticket));
        // A closed or full multiplex refuses the link: the client sees it end at once.
        if (l.core->admit(link))
          batch.push_back({l.core, std::move(link)});
        else
          link->shutdown();
      }
    }
    for (Accepted& a : batch) a.core->serve(a.link);
  }

  void pauseLocked(uint64_t key, int fd) {
    ::epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
    paused_.push_back({key, Clock::now() + kAcceptPause});
  }

  // Puts paused listeners whose time has come back into the epoll set, if still watched.
  void resumeDue() {
    if (paused_.empty()) return;
    const Clock::time_point now = Clock::now();
    std::lock_guard lock(mutex_);
    std::erase_if(paused_, [&](const Pause& p) {
      if (p.resume > now) return false;
      auto it = listeners_.find(p.key);
      if (it == listeners_.end()) return true;
      epoll_event ev{};
      ev.events = EPOLLIN;
      ev.data.u64 = p.key;
      return ::epoll_ctl(epollFd_, EPOLL_CTL_ADD, it->second.fd, &ev) == 0;
    });
  }

  // How long the next wait may last: until the earliest paused listener is due, at most the
  // idle time while nothing is watched, otherwise for ever (-1).
  int waitMs() {
    int ms = -1;
    {
      std::lock_guard lock(mutex_);
      if (!activeLocked()) ms = kIdleEndMs;
      waitsForever_ = ms < 0 && paused_.empty();
    }
    if (paused_.empty()) return ms;
    Clock::time_point first = paused_.front().resume;
    for (const Pause& p : paused_) first = std::min(first, p.resume);
    auto left = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now()).count();
    int due = left > 0 ? static_cast<int>(left) : 0;
    return ms < 0 ? due : std::min(ms, due);
  }

  // After a wait that timed out: true when no multiplex is watched, and the thread then ends,
  // closing the spares and removing their files. The next watch() starts a new thread; the
  // state stays.
  bool endIfIdle() {
    std::vector<std::pair<int, std::string>> gone;
    {
      std::lock_guard lock(mutex_);
      if (activeLocked()) return false;
      for (Spare& spare : spares_) {
        auto it = listeners_.find(spare.key);
        if (it != listeners_.end()) gone.emplace_back(unlistLocked(it).fd, std::move(spare.path));
      }
      spares_.clear();
      paused_.clear();  // only keys of unwatched listeners can be left
      started_ = false;
    }
    for (auto& [fd, path] : gone) {
      HostFd::close(fd);
      ::unlink(path.c_str());
      Runtime::disownFile(path);
    }
    return true;
  }

  std::mutex mutex_;
  // Guarded by mutex_: an acceptor thread runs and has not yet decided to end.
  bool started_ = false;
  // Made under mutex_ before the first thread starts, never changed or closed after; threads
  // read them without the lock.
  int epollFd_ = -1;
  int wakeFd_ = -1;  // eventfd: poked when the last listener goes during a wait for ever
  // Guarded by mutex_: the thread's current wait has no time-out.
  bool waitsForever_ = false;
  uint64_t nextKey_ = 1;                               // guarded by mutex_
  // Links of each process on all multiplexes; locks itself.
  const Ref<PeerLinks> peerLinks_ = PeerLinks::create(Multiplex::kMaxLinksPerProcess);
  std::unordered_map<uint64_t, Listener> listeners_;  // guarded by mutex_
  std::vector<Spare> spares_;  // guarded by mutex_: each also listed in listeners_, core null
  std::vector<Pause> paused_;  // the running acceptor thread only (handed on under mutex_)
};

}  // namespace

bool MuxAcceptor::watch(const Ref<Multiplex::Core>& core) {
  return Acceptor::instance().watch(core);
}

bool MuxAcceptor::reuse(const Ref<Multiplex::Core>& core) {
  return Acceptor::instance().reuse(core);
}

bool MuxAcceptor::unwatch(Multiplex::Core& core, uint64_t nextBase) {
  return core.acceptKey != 0 && Acceptor::instance().unwatch(core, nextBase);
}

}  // namespace Libraries::Service
