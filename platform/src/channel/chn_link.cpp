// One client connection of a channel. Any thread may send on it; only the channel's serving
// thread closes its socket, and it does so under the link's mutex, so a sender never writes to
// a descriptor number that the process has already handed to something else.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "chn_impl.h"
#include "posix/wire.h"
#include "file/host_fd.h"

namespace {
// A frame that went out in full answers true; *again tells that the socket had no room.
bool sendNow(int fd, const uint8_t* frame, size_t size, bool* again) {
  ssize_t n = ::send(fd, frame, size, MSG_DONTWAIT | MSG_NOSIGNAL);
  *again = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
  return n == static_cast<ssize_t>(size);
}
bool sendNow(int fd, const std::vector<uint8_t>& frame, bool* again) {
  return sendNow(fd, frame.data(), frame.size(), again);
}
}  // namespace

bool ChnLink::sendFrame(const uint8_t* frame, size_t size) {
  {
    std::lock_guard lock(mutex_);
    if (fd_ < 0 || dropped_ || size == 0 || size > PX_WIRE_MAX_FRAME) return false;
    if (queue_.empty() && !held_) {
      bool again = false;
      if (sendNow(fd_, frame, size, &again)) return true;
      if (!again) return false;
    }
  }
  // It has to wait behind others, for room or for sendHeld(): the queue keeps a copy.
  return sendFrame(std::vector<uint8_t>(frame, frame + size));
}

bool ChnLink::sendFrame(std::vector<uint8_t> frame, int file) {
  {
    std::lock_guard lock(mutex_);
    if (fd_ < 0 || dropped_ || frame.empty() || frame.size() > PX_WIRE_MAX_FRAME) return false;
    if (held_ && file >= 0) {
      // The descriptor cannot wait in the queue: what was held goes now, and this after it.
      held_ = false;
      if (!flushLocked()) attendLocked();
    }
    if (queue_.empty() && file >= 0) {
      iovec iov{frame.data(), frame.size()};
      alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
      msghdr msg{};
      msg.msg_iov = &iov;
      msg.msg_iovlen = 1;
      msg.msg_control = control;
      msg.msg_controllen = sizeof control;
      cmsghdr* c = CMSG_FIRSTHDR(&msg);
      c->cmsg_level = SOL_SOCKET;
      c->cmsg_type = SCM_RIGHTS;
      c->cmsg_len = CMSG_LEN(sizeof(int));
      std::memcpy(CMSG_DATA(c), &file, sizeof file);
      ssize_t n = ::sendmsg(fd_, &msg, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (n == static_cast<ssize_t>(frame.size())) return true;
      if (n >= 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) return false;
    }
  }
  return sendFrame(std::move(frame));
}

bool ChnLink::sendFrame(std::vector<uint8_t> frame) {
  std::lock_guard lock(mutex_);
  if (fd_ < 0 || dropped_ || frame.empty() || frame.size() > PX_WIRE_MAX_FRAME) return false;
  // Replies keep their order: once one waits, the rest wait behind it.
  if (queue_.empty() && !held_) {
    bool again = false;
    if (sendNow(fd_, frame, &again)) return true;
    if (!again) return false;  // the peer has gone; the channel notices the hang-up itself
  }
  if (queue_.size() >= kMaxQueuedFrames || queuedBytes_ + frame.size() > kMaxQueuedBytes) {
    // A client that does not read its replies must not hold the server's memory.
    dropLocked();
    return false;
  }
  bool first = queue_.empty();
  queuedBytes_ += frame.size();
  queue_.push_back(std::move(frame));
  if (first && !held_) attendLocked();
  return true;
}

void ChnLink::dropLocked() {
  ::shutdown(fd_, SHUT_RDWR);
  dropped_ = true;
  queue_.clear();
  queuedBytes_ = 0;
  attendLocked();
}

void ChnLink::attendLocked() {
  if (channel_) {
    channel_->attend(this);
  } else if (wakeFd_ >= 0) {
    uint64_t one = 1;
    ssize_t n = ::write(wakeFd_, &one, sizeof one);
    (void)n;  // a full counter already wakes the serving thread
  }
}

void ChnLink::shutdown() {
  std::lock_guard lock(mutex_);
  if (fd_ < 0 || dropped_) return;
  dropLocked();
}

size_t ChnLink::queuedFrames() const {
  std::lock_guard lock(mutex_);
  return queue_.size();
}

bool ChnLink::isOpen() const {
  std::lock_guard lock(mutex_);
  return fd_ >= 0 && !dropped_;
}

bool ChnLink::peerGone() const {
  std::lock_guard lock(mutex_);
  if (fd_ < 0 || dropped_) return true;
  pollfd p{fd_, POLLRDHUP, 0};
  return ::poll(&p, 1, 0) == 1 && (p.revents & (POLLHUP | POLLRDHUP | POLLERR));
}

bool ChnLink::dropped() const {
  std::lock_guard lock(mutex_);
  return dropped_;
}

bool ChnLink::flush() {
  std::lock_guard lock(mutex_);
  return flushLocked();
}

void ChnLink::hold() {
  std::lock_guard lock(mutex_);
  held_ = true;
}

void ChnLink::sendHeld() {
  std::lock_guard lock(mutex_);
  if (!held_) return;
  held_ = false;
  if (!flushLocked()) attendLocked();  // the rest goes when the socket has room
}

bool ChnLink::flushLocked() {
  if (held_) return true;  // sendHeld() sends them, and asks for room itself if need be
  while (!queue_.empty() && fd_ >= 0) {
    bool again = false;
    if (sendNow(fd_, queue_.front(), &again)) {
      queuedBytes_ -= queue_.front().size();
      queue_.pop_front();
    } else if (again) {
      return false;
    } else {
      queue_.clear();  // the peer has gone: nobody will read these
      queuedBytes_ = 0;
    }
  }
  return true;
}

void ChnLink::closeSocket() {
  Ref<Object> ticket;
  {
    std::lock_guard lock(mutex_);
    HostFd::close(fd_);
    fd_ = -1;
    channel_ = nullptr;
    wakeFd_ = -1;
    queue_.clear();
    queuedBytes_ = 0;
    ticket = std::move(ticket_);
  }
  // Released outside the lock: the count it returns to has a lock of its own.
}

namespace {
std::atomic<uint64_t> g_openLinks{0};  // links constructed and not yet destroyed
}  // namespace

ChnLink::ChnLink(int fd, const ChnPeer& peer, Ref<Object> ticket, Chn* channel)
    : fd_(fd), peer_(peer), ticket_(std::move(ticket)), channel_(channel) {
  g_openLinks.fetch_add(1, std::memory_order_relaxed);
}

ChnLink::~ChnLink() {
  g_openLinks.fetch_sub(1, std::memory_order_relaxed);
  HostFd::close(fd_);
}

uint64_t ChnLink::openLinks() { return g_openLinks.load(std::memory_order_relaxed); }
