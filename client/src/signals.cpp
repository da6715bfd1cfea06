// Signal delivery. The server hands a process its signals as replies to a kept waitSignal
// request; when signals were pending it answers one request several times (once per signal,
// then once more with 0). So the process keeps one dedicated connection for signals, treats
// every reply on it that carries a signal number as a signal, whatever its request id, and
// keeps at most one waitSignal request outstanding. Signals read ahead wait in a local queue.
#include <errno.h>
#include <time.h>

#include <condition_variable>
#include <deque>
#include <mutex>

#include "internal.h"
#include "posix_client.h"

namespace pxc {

namespace {

// Pause before asking again when the server answers a waitSignal with 0 at once (another
// connection of this process holds the one kept request), so the library does not spin.
constexpr int64_t kBackOffMs = 5;

struct Event {
  int sig;
  px_siginfo info;
};

struct SignalState {
  std::mutex mutex;
  std::condition_variable cond;  // a reader filed something or gave up the reader role
  Connection* conn = nullptr;    // guarded by mutex; used outside it only by the reader
  std::deque<Event> queued;      // guarded by mutex: signals received, not yet handed out
  uint64_t outstanding = 0;      // guarded by mutex: the kept waitSignal request, 0 if none
  bool reading = false;          // guarded by mutex: one thread reads conn at a time
  int64_t quietUntil = 0;        // guarded by mutex: no new waitSignal before this time
};

// Made once and never destroyed, so that a thread still waiting for a signal while the
// process exits never meets a destroyed state.
SignalState& st() {
  static SignalState* state = new SignalState;
  return *state;
}

int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void sleepMs(int64_t ms) {
  struct timespec ts = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

// Files one reply of the signal connection. Called with the state's mutex held.
void takeReply(const Reply& reply) {
  if (reply.code >= 1 && reply.code < PX_SIG_COUNT) {
    Event ev{static_cast<int>(reply.code), {}};
    if (!reply.record(&ev.info)) ev.info.signal = reply.code;  // was pending: no record
    st().queued.push_back(ev);
    if (reply.id == st().outstanding) st().outstanding = 0;
    return;
  }
  if (reply.id == st().outstanding) {
    // 0: the end of a burst of pending signals, or "another request is kept already".
    st().outstanding = 0;
    st().quietUntil = nowMs() + kBackOffMs;
  }
  // Anything else is a late answer to a request that is finished already.
}

// One turn as the reader: ask for signals if nobody asked, then read one reply.
// Called with the lock held; answers 0, EAGAIN (time-out) or the error that broke the link.
int readOnce(std::unique_lock<std::mutex>& lock, int64_t deadline) {
  st().reading = true;
  if (st().conn == nullptr) {
    lock.unlock();
    int err = 0;
    Connection* c = Connection::open(&err);
    lock.lock();
    if (c == nullptr) {
      st().reading = false;
      return err;
    }
    st().conn = c;
  }
  Connection* conn = st().conn;
  bool ask = st().outstanding == 0;
  int64_t quiet = st().quietUntil;
  lock.unlock();

  int err = 0;
  uint64_t id = 0;
  if (ask) {
    int64_t pause = quiet - nowMs();
    if (deadline >= 0 && pause > deadline - nowMs()) pause = deadline - nowMs();
    if (pause > 0) sleepMs(pause);
    if (deadline >= 0 && nowMs() >= deadline) err = EAGAIN;
    if (err == 0) {
      FrameWriter req(PX_CMD_WAIT_SIGNAL);
      id = nextRequestId();
      err = conn->send(req.finish(id));
    }
  }
  Reply reply;
  if (err == 0) {
    int wait = deadline < 0 ? -1 : static_cast<int>(deadline > nowMs() ? deadline - nowMs() : 0);
    err = conn->receive(&reply, wait);
  }

  lock.lock();
  st().reading = false;
  if (ask && id != 0 && (err == 0 || err == EAGAIN)) st().outstanding = id;
  if (err == 0) takeReply(reply);
  if (err != 0 && err != EAGAIN) {
    // The link is broken: drop it; the next call connects again.
    delete st().conn;
    st().conn = nullptr;
    st().outstanding = 0;
  }
  st().cond.notify_all();
  return err;
}

}  // namespace

void resetSignals() {
  std::lock_guard<std::mutex> lock(st().mutex);
  delete st().conn;
  st().conn = nullptr;
  st().queued.clear();
  st().outstanding = 0;
  st().reading = false;
  st().quietUntil = 0;
}

}  // namespace pxc

extern "C" {

int px_sigtimedwait(int* sig, px_siginfo* info, int timeout_ms) {
  pxc::checkFork();
  int64_t deadline = timeout_ms < 0 ? -1 : pxc::nowMs() + timeout_ms;
  std::unique_lock<std::mutex> lock(pxc::st().mutex);
  for (;;) {
    if (!pxc::st().queued.empty()) {
      pxc::Event ev = pxc::st().queued.front();
      pxc::st().queued.pop_front();
      if (sig != nullptr) *sig = ev.sig;
      if (info != nullptr) *info = ev.info;
      return 0;
    }
    if (deadline >= 0 && pxc::nowMs() >= deadline) return pxc::fail(EAGAIN);
    if (pxc::st().reading) {
      // Another thread reads the connection; it files what comes and wakes us.
      if (deadline < 0) {
        pxc::st().cond.wait(lock);
      } else {
        pxc::st().cond.wait_for(lock, std::chrono::milliseconds(deadline - pxc::nowMs()));
      }
      continue;
    }
    int err = pxc::readOnce(lock, deadline);
    if (err != 0 && err != EAGAIN) return pxc::fail(err);
  }
}

int px_sigwait(int* sig, px_siginfo* info) { return px_sigtimedwait(sig, info, -1); }

}  // extern "C"
