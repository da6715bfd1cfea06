// Links to "posix.service": the runtime directory, connecting, sending requests and matching
// replies by request id.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
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

int64_t nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

// The same rule as the platform's: $POSIX_RUNTIME_DIR, $XDG_RUNTIME_DIR/posix, /tmp/posix-<uid>.
const std::string& runtimeDir() {
  std::lock_guard<std::mutex> lock(runtimeMutex);
  std::string& dir = runtimeDirectory();
  if (dir.empty()) {
    const char* own = getenv("POSIX_RUNTIME_DIR");
    const char* xdg = getenv("XDG_RUNTIME_DIR");
    if (own != nullptr && own[0] != '\0') {
      dir = own;
    } else if (xdg != nullptr && xdg[0] != '\0') {
      dir = std::string(xdg) + "/posix";
    } else {
      dir = "/tmp/posix-" + std::to_string(geteuid());
    }
    // "RT/" would make lstat follow a symlink at RT.
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  }
  return dir;
}

void resetRuntimeDir() {
  std::lock_guard<std::mutex> lock(runtimeMutex);
  runtimeDirectory().clear();
  runtimeGenerations.fetch_add(1, std::memory_order_release);
}

uint64_t runtimeGeneration() { return runtimeGenerations.load(std::memory_order_acquire); }

// Checked on every connect, not once: a directory that did not exist at one call may have been
// made by someone else before the next.
int checkRuntimeDir() {
  struct stat st;
  if (lstat(runtimeDir().c_str(), &st) != 0) return errno == ENOENT ? ENOENT : EACCES;
  if (!S_ISDIR(st.st_mode) || st.st_uid != geteuid() || (st.st_mode & 077) != 0) return EACCES;
  return 0;
}

int aboveStandardFds(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  int err = errno;
  close(fd);
  errno = err;
  return moved;
}

uint64_t nextRequestId() { return requestIds.fetch_add(1, std::memory_order_relaxed); }

Connection::Connection(int fd) : fd_(fd), buffer_(PX_WIRE_MAX_FRAME) {}

Connection::~Connection() { close(fd_); }

namespace {

// Connects `fd` to the socket at `path`: 0 or errno.
int connectTo(int fd, const std::string& path) {
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return ENAMETOOLONG;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int rc;
  do {
    rc = connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? 0 : errno;
}

// The peer of a connected link runs as our effective uid: 0 or EACCES.
int checkPeer(int fd) {
  struct ucred cred;
  socklen_t len = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return errno;
  return cred.uid == geteuid() ? 0 : EACCES;
}

}  // namespace

int connectSeqpacket(const std::string& path, int* err) {
  *err = checkRuntimeDir();
  if (*err != 0) return -1;
  int fd = aboveStandardFds(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (fd < 0) {
    *err = errno;
    return -1;
  }
  struct timeval tv = {kReplyTimeoutMs / 1000, (kReplyTimeoutMs % 1000) * 1000};
  *err = connectTo(fd, path);
  if (*err == 0) *err = checkPeer(fd);
  if (*err == 0 && setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) *err = errno;
  if (*err != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

Connection* Connection::open(int* err) {
  int fd = connectSeqpacket(runtimeDir() + "/chn/" + PX_SERVICE_NAME, err);
  if (fd < 0) return nullptr;
  return new Connection(fd);
}

int Connection::send(const std::vector<uint8_t>& frame) {
  for (;;) {
    ssize_t n = ::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(frame.size())) return 0;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EPIPE || errno == ENOTCONN || errno == ECONNREFUSED)) {
      return ECONNRESET;
    }
    return n < 0 ? errno : EPROTO;
  }
}

int Connection::receive(Reply* out, int timeoutMs) {
  int64_t deadline = timeoutMs < 0 ? -1 : nowMs() + timeoutMs;
  for (;;) {
    // With a time-out of its own, poll first so that both the time-out and a server that hung
    // up end the wait. Otherwise a blocking recv is enough (a hang-up ends it with 0 bytes, the
    // socket's receive time-out a wedged server) and saves a system call on every round trip.
    int flags = MSG_TRUNC;
    if (deadline >= 0) {
      int64_t left = deadline - nowMs();
      struct pollfd pfd = {fd_, POLLIN, 0};
      int rc = poll(&pfd, 1, left < 0 ? 0 : static_cast<int>(left));
      if (rc < 0 && errno == EINTR) continue;
      if (rc < 0) return errno;
      if (rc == 0) return EAGAIN;
      flags |= MSG_DONTWAIT;
    }
    ssize_t n = recv(fd_, buffer_.data(), buffer_.size(), flags);
    if (n < 0 && errno == EAGAIN && timeoutMs == kReplyLimit) return ETIMEDOUT;
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (n < 0) return errno == ECONNREFUSED ? ECONNRESET : errno;
    if (n == 0) return ECONNRESET;  // end of stream: the server closed the link
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

int64_t Connection::peerPid() const {
  struct ucred cred;
  socklen_t len = sizeof cred;
  if (getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return 0;
  return cred.pid;
}

}  // namespace pxc
