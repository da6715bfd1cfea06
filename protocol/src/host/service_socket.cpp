#include "host/service_socket.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "host/runtime_rule.h"

namespace posix::host {

namespace {

// The address of `path`; false when it does not fit.
bool addressOf(const std::string& path, struct sockaddr_un* addr) {
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  if (path.size() >= sizeof addr->sun_path) return false;
  std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return true;
}

int connectTo(int fd, const struct sockaddr_un& addr) {
  int rc;
  do {
    rc = ::connect(fd, reinterpret_cast<const struct sockaddr*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? 0 : errno;
}

bool peerOf(int fd, struct ucred* cred) {
  socklen_t len = sizeof *cred;
  return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, cred, &len) == 0;
}

}  // namespace

int64_t monotonicMs() {
  struct timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int aboveStandardFds(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  int err = errno;
  ::close(fd);
  errno = err;
  return moved;
}

int probeListener(const std::string& path, Listener* out) {
  struct sockaddr_un addr;
  if (!addressOf(path, &addr)) return ENAMETOOLONG;
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return errno;
  int err = connectTo(fd, addr);
  if (err == EINPROGRESS) err = EAGAIN;  // a full backlog: someone listens
  struct ucred cred;
  if (err == 0) *out = peerOf(fd, &cred) ? Listener{cred.pid, cred.uid} : Listener{};
  ::close(fd);
  return err;
}

int replyTimeoutMs() {
  const char* text = std::getenv("POSIX_REPLY_TIMEOUT_MS");
  if (text == nullptr || *text == '\0') return kReplyTimeoutMs;
  char* end = nullptr;
  errno = 0;
  long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < 1 || value > kMaxReplyTimeoutMs) return kReplyTimeoutMs;
  return static_cast<int>(value);
}

ServiceSocket::~ServiceSocket() {
  if (fd_ >= 0) ::close(fd_);
}

int ServiceSocket::open(const std::string& rt, const std::string& name) {
  // Checked on every open, not once: a directory that did not exist at one call may have been
  // made by someone else before the next.
  struct stat st;
  if (::lstat(rt.c_str(), &st) != 0) return errno == ENOENT ? ENOENT : EACCES;
  if (runtimeDirFault(st) != DirFault::kNone) return EACCES;
  struct sockaddr_un addr;
  if (!addressOf(rt + "/chn/" + name, &addr)) return ENAMETOOLONG;
  int fd = aboveStandardFds(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (fd < 0) return errno;
  struct ucred cred;
  const int timeoutMs = replyTimeoutMs();
  struct timeval tv = {timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  int err = connectTo(fd, addr);
  if (err == 0 && !peerOf(fd, &cred)) err = errno;
  if (err == 0 && cred.uid != ::geteuid()) err = EACCES;
  if (err == 0 && ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) err = errno;
  if (err != 0) {
    ::close(fd);
    return err;
  }
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
  return 0;
}

int ServiceSocket::send(const void* frame, size_t size) const {
  sent(frame, size);
  for (;;) {
    ssize_t n = ::send(fd_, frame, size, MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(size)) return 0;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EPIPE || errno == ENOTCONN || errno == ECONNREFUSED)) return ECONNRESET;
    return n < 0 ? errno : EPROTO;
  }
}

int ServiceSocket::send(const void* frame, size_t size, const int* fds, size_t count) const {
  if (count == 0) return send(frame, size);
  sent(frame, size);
  constexpr size_t kMost = 8;
  if (count > kMost) return EINVAL;
  iovec iov{const_cast<void*>(frame), size};
  alignas(cmsghdr) char control[CMSG_SPACE(kMost * sizeof(int))] = {};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = CMSG_SPACE(count * sizeof(int));
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = SOL_SOCKET;
  c->cmsg_type = SCM_RIGHTS;
  c->cmsg_len = CMSG_LEN(count * sizeof(int));
  std::memcpy(CMSG_DATA(c), fds, count * sizeof(int));
  for (;;) {
    ssize_t n = ::sendmsg(fd_, &msg, MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(size)) return 0;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EPIPE || errno == ENOTCONN || errno == ECONNREFUSED)) return ECONNRESET;
    return n < 0 ? errno : EPROTO;
  }
}

void ServiceSocket::sent(const void* frame, size_t size) const {
  uint32_t code = 0;
  if (size >= 2 * sizeof code) std::memcpy(&code, static_cast<const char*>(frame) + sizeof code, sizeof code);
  lastCommand_.store(code, std::memory_order_relaxed);
}

bool ServiceSocket::lookForReply() {
  SkipBackoff& looks = looks_[lastCommand_.load(std::memory_order_relaxed) % kLookSlots];
  if (looks.skipping()) return false;
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  const int64_t until = now.tv_sec * 1000000000ll + now.tv_nsec + kReplyLookNs;
  pollfd pfd = {fd_, POLLIN, 0};
  do {
    if (::poll(&pfd, 1, 0) > 0) {
      looks.paid();
      return true;
    }
    ::clock_gettime(CLOCK_MONOTONIC, &now);
  } while (now.tv_sec * 1000000000ll + now.tv_nsec < until);
  looks.missed();
  return false;
}

ssize_t ServiceSocket::receive(void* buffer, size_t capacity, int64_t deadlineMs) {
  if (deadlineMs == kLinkTimeout) lookForReply();
  for (;;) {
    // With a deadline, poll first so that both the deadline and a server that hung up end the
    // wait. Otherwise a blocking recv is enough (a hang-up ends it with 0 bytes, the link's
    // receive time-out a wedged server) and saves a system call on every round trip.
    int flags = MSG_TRUNC;
    if (deadlineMs != kLinkTimeout) {
      int64_t left = deadlineMs - monotonicMs();
      struct pollfd pfd = {fd_, POLLIN, 0};
      int rc = ::poll(&pfd, 1, left < 0 ? 0 : static_cast<int>(left));
      if (rc < 0) return -errno;
      if (rc == 0) return -EAGAIN;
      flags |= MSG_DONTWAIT;
    }
    ssize_t n = ::recv(fd_, buffer, capacity, flags);
    if (n > 0) return n;
    if (n == 0) return -ECONNRESET;  // end of stream: the other end closed the link
    if (errno == EAGAIN && deadlineMs != kLinkTimeout) continue;  // woken for nothing
    return errno == ECONNREFUSED ? -ECONNRESET : -errno;
  }
}

int64_t ServiceSocket::peerPid() const {
  struct ucred cred;
  return peerOf(fd_, &cred) ? cred.pid : 0;
}

}  // namespace posix::host
