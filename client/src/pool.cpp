// The connection pool and the library's set-up calls. A call takes one idle connection (or
// opens a new one) for its whole duration, so a blocking wait never holds up other threads.
#include <errno.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "descriptors.h"
#include "posix_client.h"

namespace pxc {

namespace {

// Idle connections kept for later calls; more are closed when they come back.
constexpr size_t kMaxIdle = 4;

// Plain arrays and counters: nothing here is destroyed at exit, so a thread still inside a
// call while the process exits never meets a destroyed pool, and idle connections stay
// reachable (not leaks) to the end.
std::mutex poolMutex;
Connection* idle[kMaxIdle];  // guarded by poolMutex
size_t idleCount = 0;        // guarded by poolMutex

void dropIdleLocked() {
  for (size_t i = 0; i < idleCount; ++i) delete idle[i];
  idleCount = 0;
}

}  // namespace

// A forked child shares its parent's sockets, and the server would take its requests for the
// parent's (it knows a client by the pid that connected). So the child drops them all. A fork
// handler marks the child, so that a call does not have to ask the kernel for its pid.
static std::atomic<bool> forkedSinceLastCall{false};

void checkFork() {
  static std::once_flag watch;
  std::call_once(watch, [] {
    pthread_atfork(nullptr, nullptr, [] { forkedSinceLastCall.store(true, std::memory_order_relaxed); });
  });
  if (!forkedSinceLastCall.exchange(false, std::memory_order_relaxed)) return;
  {
    std::lock_guard<std::mutex> lock(poolMutex);
    dropIdleLocked();
  }
  resetSignals();
  resetChildren();
}

Connection* acquire(int* err, bool* reused) {
  checkFork();
  {
    std::lock_guard<std::mutex> lock(poolMutex);
    if (idleCount > 0) {
      Connection* c = idle[--idleCount];
      if (reused != nullptr) *reused = true;
      return c;
    }
  }
  if (reused != nullptr) *reused = false;
  return Connection::open(err);
}

void release(Connection* conn, bool reusable) {
  if (conn == nullptr) return;
  if (reusable) {
    std::lock_guard<std::mutex> lock(poolMutex);
    // A link taken before a fork is not kept by the child.
    if (idleCount < kMaxIdle && !forkedSinceLastCall.load(std::memory_order_relaxed)) {
      idle[idleCount++] = conn;
      return;
    }
  }
  delete conn;
}

int transact(FrameWriter& req, Reply* out, bool mayWait, const int* fds, size_t fdCount) {
  if (!req.ok()) return E2BIG;
  settleFds();  // no request overtakes a close this process made
  for (;;) {
    int err = 0;
    bool reused = false;
    Connection* conn = acquire(&err, &reused);
    if (conn == nullptr) return err;
    uint64_t id = nextRequestId();
    err = conn->send(req.finish(id), fds, fdCount);
    if (err != 0) {
      release(conn, false);
      // A pooled link whose server went away between calls: the request never left, so try
      // a fresh link (which reaches a new server, or tells that none runs).
      if (reused && err == ECONNRESET) continue;
      return err;
    }
    err = conn->await(id, out, mayWait ? Connection::kForever : Connection::kReplyLimit);
    release(conn, err == 0);
    return err;
  }
}

void resetPool() {
  std::lock_guard<std::mutex> lock(poolMutex);
  dropIdleLocked();
}

int fail(int err) {
  errno = err;
  return -1;
}

}  // namespace pxc

extern "C" {

int px_init(void) {
  int err = 0;
  pxc::Connection* conn = pxc::acquire(&err, nullptr);
  if (conn == nullptr) return pxc::fail(err);
  pxc::release(conn, true);
  return 0;
}

void px_fini(void) {
  pxc::resetPool();
  pxc::resetSignals();
  pxc::resetChildren();
  pxc::resetFds();
  pxc::resetRuntimeDir();
}

const char* px_runtime_dir(void) { return pxc::runtimeDir().c_str(); }

int64_t px_server_pid(void) {
  int err = 0;
  pxc::Connection* conn = pxc::acquire(&err, nullptr);
  if (conn == nullptr) return pxc::fail(err);
  int64_t pid = conn->peerPid();
  pxc::release(conn, true);
  if (pid <= 0) return pxc::fail(ENOTCONN);
  return pid;
}

}  // extern "C"
