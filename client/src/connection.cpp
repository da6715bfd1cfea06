// Links to "posix.service": the runtime directory, connecting, sending requests and matching
// replies by request id.
#include <errno.h>
#include <sys/stat.h>

#include <atomic>
#include <mutex>

#include "internal.h"

namespace pxc {

namespace {

std::mutex runtimeMutex;

// Guarded by runtimeMutex; empty until found. Never destroyed: px_runtime_dir() hands out
// its characters.
std::string& runtimeDirectory() {
  static std::string* dir = new std::string;
  return *dir;
}

std::atomic<uint64_t> requestIds{1};

// Counts resetRuntimeDir calls: state kept per instance compares this instead of the string,
// which would take runtimeMutex on every descriptor call.
std::atomic<uint64_t> runtimeGenerations{1};

}  // namespace

// The platform's rule (host/runtime_rule.h), found once: px_runtime_dir() hands out the string.
const std::string& runtimeDir() {
  std::lock_guard<std::mutex> lock(runtimeMutex);
  std::string& dir = runtimeDirectory();
  if (dir.empty()) dir = posix::host::runtimeDirectory();
  return dir;
}

void resetRuntimeDir() {
  std::lock_guard<std::mutex> lock(runtimeMutex);
  runtimeDirectory().clear();
  runtimeGenerations.fetch_add(1, std::memory_order_release);
}

uint64_t runtimeGeneration() { return runtimeGenerations.load(std::memory_order_acquire); }

int checkRuntimeDir() {
  struct stat st;
  if (lstat(runtimeDir().c_str(), &st) != 0) return errno == ENOENT ? ENOENT : EACCES;
  return posix::host::runtimeDirFault(st) == posix::host::DirFault::kNone ? 0 : EACCES;
}

uint64_t nextRequestId() { return requestIds.fetch_add(1, std::memory_order_relaxed); }

Connection::Connection() : buffer_(PX_WIRE_MAX_FRAME) {}

Connection* Connection::open(int* err) {
  Connection* conn = new Connection;
  *err = conn->socket_.open(runtimeDir(), PX_SERVICE_NAME);
  if (*err == 0) return conn;
  delete conn;
  return nullptr;
}

int Connection::send(const std::vector<uint8_t>& frame, const int* fds, size_t fdCount) {
  return socket_.send(frame.data(), frame.size(), fds, fdCount);
}

int Connection::receive(Reply* out, int timeoutMs) {
  using posix::host::ServiceSocket;
  int64_t deadline = timeoutMs < 0 ? ServiceSocket::kLinkTimeout : posix::host::monotonicMs() + timeoutMs;
  for (;;) {
    ssize_t n = socket_.receive(buffer_.data(), buffer_.size(), deadline);
    if (n == -EAGAIN && timeoutMs == kReplyLimit) return ETIMEDOUT;
    if (n == -EAGAIN && timeoutMs == kForever) continue;  // only the link's time-out passed
    if (n == -EINTR) continue;
    if (n < 0) return static_cast<int>(-n);
    if (static_cast<size_t>(n) > buffer_.size()) return EPROTO;
    if (!decodeReply(buffer_.data(), static_cast<size_t>(n), out)) return EPROTO;
    return 0;
  }
}

int Connection::await(uint64_t id, Reply* out, int timeoutMs) {
  for (;;) {
    int err = receive(out, timeoutMs);
    if (err != 0) return err;
    if (out->id == id) return 0;
    // The server refused the link itself (a bound of this process): id 0, result 11.
    if (out->id == 0 && out->code == PX_RESULT_LIMIT) return EAGAIN;
    // A reply to an earlier request (an extra answer): not ours, skip it.
  }
}

}  // namespace pxc
