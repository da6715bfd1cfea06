// The watchers of parked requests: a request that waits for a futex word (bytes, room or a lock
// of a FIFO's shared page) is parked by its handler instead of holding a pool thread, and a
// watcher thread waits on its word together with those of up to 126 other parked requests
// (futex_waitv takes 128 words a call; the watcher's own word is one of them). A watcher gives
// a request back to the pool (MuxPool::resume) once its word no longer holds the value its
// handler saw, its time has come, or its link had an event (nudge). So the threads that wait
// grow by one per 127 parked requests, not by one per request.
//
// The waker side needs no help: the handler counted itself among the word's waiters before it
// read the value, so whoever moves the word also calls the wake, and a watcher that has not
// gone to sleep yet finds the value moved (futex_waitv compares it first).
//
// Watchers are made when every one is full and end after a second without a request; a new
// parked request goes to the fullest watcher with room, so that there are about as many
// watchers as the parked requests need (one per 127). Where
// the host has no futex_waitv, or a watcher cannot be started, nothing is parked and handlers
// wait on their own threads as before (Multiplex::Waiting).
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <mutex>
#include <vector>

#include "multiplex_core.h"

namespace {

// Words of parked requests per watcher: the call's bound less the watcher's own word.
constexpr size_t kPerWatcher = FUTEX_WAITV_MAX - 1;
constexpr int64_t kIdleEndNs = 1000000000;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void wake(uint32_t* word) {
  std::atomic_ref<uint32_t>(*word).fetch_add(1);
  syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

class Watcher : public Object, public Exec {
 public:
  void run() override;

  // The watcher's own word: moved whenever its requests change, so that a wait under way
  // looks at them again.
  uint32_t changed = 0;
  std::vector<Ref<MuxServed>> parked;  // guarded by the set's mutex
};

class ParkSet {
 public:
  static ParkSet& instance() {
    static ParkSet* const set = new ParkSet();  // used until the process ends
    return *set;
  }

  bool available() const { return available_.load(std::memory_order_relaxed); }

  void add(const Ref<MuxServed>& s) {
    Ref<Watcher> into;
    bool made = false;
    {
      std::lock_guard lock(mutex_);
      // The fullest watcher with room: so the parked requests gather in few watchers, and one
      // whose requests have gone empties and ends instead of keeping a few for ever.
      for (const Ref<Watcher>& w : watchers_) {
        if (w->parked.size() < kPerWatcher && (!into || w->parked.size() > into->parked.size()))
          into = w;
      }
      if (!into) {
        into = new Watcher();
        watchers_.push_back(into);
        made = true;
      }
      into->parked.push_back(s);
      s->watcher = into.get();
    }
    if (made && !start(into)) return;
    wake(&into->changed);
  }

  void nudge(MuxServed& s) {
    Watcher* w = nullptr;
    {
      std::lock_guard lock(mutex_);
      s.nudged = true;  // kept for a request parked from now on, too: it is given back at once
      w = static_cast<Watcher*>(s.watcher);
    }
    if (w) wake(&w->changed);
  }

  void watch(Watcher& w);

 private:
  ParkSet() {
    // No words at all: EINVAL where the call exists.
    long rc = syscall(SYS_futex_waitv, nullptr, 0, 0, nullptr, CLOCK_MONOTONIC);
    available_.store(!(rc < 0 && errno == ENOSYS));
  }

  // Starts a watcher's thread; when it cannot start, parking ends for the process and the
  // watcher's requests go back to the pool (they then wait on their own threads).
  bool start(const Ref<Watcher>& w) {
    Ref<Thd> thread = Thd::create(Ref<Exec>(w.get()));
    if (thread) {
      thread->setName("MuxPark");
      if (thread->start()) return true;
    }
    available_.store(false);
    std::vector<Ref<MuxServed>> back;
    {
      std::lock_guard lock(mutex_);
      back.swap(w->parked);
      for (const Ref<MuxServed>& s : back) s->watcher = nullptr;
      std::erase(watchers_, w);
    }
    for (const Ref<MuxServed>& s : back) MuxPool::resume(s);
    return false;
  }

  std::atomic<bool> available_{false};
  std::mutex mutex_;
  std::vector<Ref<Watcher>> watchers_;  // guarded by mutex_
};

void Watcher::run() { ParkSet::instance().watch(*this); }

void ParkSet::watch(Watcher& w) {
  std::vector<futex_waitv> words;
  words.reserve(FUTEX_WAITV_MAX);
  std::vector<Ref<MuxServed>> due;
  int64_t idleSince = 0;
  std::unique_lock lock(mutex_);
  for (;;) {
    const int64_t now = nowNs();
    int64_t next = INT64_MAX;
    words.clear();
    // Read under the lock: a change after it moves the word, and the wait below returns.
    words.push_back({std::atomic_ref<uint32_t>(w.changed).load(), reinterpret_cast<uint64_t>(&w.changed),
                     FUTEX_32 | FUTEX_PRIVATE_FLAG, 0});
    for (size_t i = 0; i < w.parked.size();) {
      MuxServed& s = *w.parked[i];
      const MuxServed::Parking& p = s.parking;
      const bool moved =
          p.word && std::atomic_ref<uint32_t>(*const_cast<uint32_t*>(p.word)).load() != p.seen;
      if (s.nudged || moved || now >= p.wakeAtNs) {
        s.nudged = false;
        s.watcher = nullptr;
        due.push_back(std::move(w.parked[i]));
        w.parked[i] = std::move(w.parked.back());
        w.parked.pop_back();
        continue;
      }
      if (p.wakeAtNs < next) next = p.wakeAtNs;
      // The page's words are shared with the clients that map it: not private.
      if (p.word) words.push_back({p.seen, reinterpret_cast<uint64_t>(p.word), FUTEX_32, 0});
      ++i;
    }
    if (!due.empty()) {
      lock.unlock();
      for (const Ref<MuxServed>& s : due) MuxPool::resume(s);
      due.clear();
      lock.lock();
      continue;
    }
    if (w.parked.empty()) {
      if (idleSince == 0) idleSince = now;
      if (now - idleSince >= kIdleEndNs) {
        std::erase_if(watchers_, [&w](const Ref<Watcher>& one) { return one.get() == &w; });
        return;  // the thread's own reference keeps `w` until run() has returned
      }
      next = idleSince + kIdleEndNs;
    } else {
      idleSince = 0;
    }
    lock.unlock();
    timespec at{};
    at.tv_sec = next / 1000000000;
    at.tv_nsec = next % 1000000000;
    // Ends when a word moves (or held another value already), at `next`, or on a signal.
    syscall(SYS_futex_waitv, words.data(), static_cast<unsigned>(words.size()), 0,
            next == INT64_MAX ? nullptr : &at, CLOCK_MONOTONIC);
    lock.lock();
  }
}

}  // namespace

bool MuxPark::available() { return ParkSet::instance().available(); }
void MuxPark::add(const Ref<MuxServed>& served) { ParkSet::instance().add(served); }
void MuxPark::nudge(MuxServed& served) { ParkSet::instance().nudge(served); }
