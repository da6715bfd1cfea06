// Links to single services: the descriptor service (a plain named channel) and the services of
// descriptions, which live on multiplexes and need a bind frame before the first request. The
// bind and the first request go out back to back: the server serves a link's frames in order,
// and its answer to the bind comes first.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "descriptors.h"

namespace pxc {

ServiceLink::ServiceLink() : buffer_(PX_WIRE_MAX_FRAME) {}

ServiceLink* ServiceLink::openNamed(const std::string& name, int* err) {
  // A reply that never comes (a server that hangs) ends the wait instead of blocking for ever
  // (the link's receive time-out); a server that dies closes the link, which ends it at once.
  ServiceLink* link = new ServiceLink;
  *err = link->socket_.open(runtimeDir(), name);
  if (*err == 0) return link;
  delete link;
  return nullptr;
}

bool ServiceLink::alive() const {
  pollfd p = {socket_.fd(), POLLRDHUP, 0};
  while (::poll(&p, 1, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) == 0;
}

ServiceLink* ServiceLink::openService(uint64_t channel, uint64_t service, int* err) {
  char name[17];
  std::snprintf(name, sizeof name, "%016" PRIx64, channel);
  ServiceLink* link = openNamed(name, err);
  if (link == nullptr) return nullptr;
  // The bind: kind 3, code 0, id = the service, no data. Its answer carries the service id.
  uint8_t bind[PX_FRAME_HEADER_SIZE] = {};
  bind[0] = PX_FRAME_BIND;
  for (int i = 0; i < 8; ++i) bind[8 + i] = static_cast<uint8_t>(service >> (8 * i));
  if (link->socket_.send(bind, sizeof bind) != 0) {
    delete link;
    *err = ECONNRESET;
    return nullptr;
  }
  link->binding_ = true;
  link->boundService_ = service;
  return link;
}

int ServiceLink::takeBindAnswer(uint64_t id, uint32_t code) {
  binding_ = false;
  if (id == 0 && code == PX_RESULT_LIMIT) return EAGAIN;  // refused: a bound of this process
  // An unknown or refused service: the server closes the link.
  return id == boundService_ && code == PX_RESULT_DONE ? 0 : ECONNRESET;
}

int ServiceLink::confirm() {
  while (binding_) {
    ssize_t n = socket_.receive(buffer_.data(), buffer_.size(),
                                posix::host::ServiceSocket::kLinkTimeout);
    if (n == -EINTR) continue;
    if (n < 0) return n == -EAGAIN ? ETIMEDOUT : ECONNRESET;
    Reply reply;
    if (static_cast<size_t>(n) > buffer_.size() ||
        !decodeReply(buffer_.data(), static_cast<size_t>(n), &reply))
      return EPROTO;
    int err = takeBindAnswer(reply.id, reply.code);
    if (err != 0) return err;
  }
  return 0;
}

int ServiceLink::sendRequest(FrameWriter& req, uint64_t* id) {
  if (!req.ok()) return E2BIG;
  *id = nextRequestId();
  const std::vector<uint8_t>& frame = req.finish(*id);
  return socket_.send(frame.data(), frame.size());
}

namespace {

// The descriptor a received message carried, moved above the standard numbers; -1 when it
// carried none.
int takeAttached(struct msghdr& msg) {
  int attached = -1;
  for (struct cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS && c->cmsg_len >= CMSG_LEN(sizeof(int)))
      std::memcpy(&attached, CMSG_DATA(c), sizeof attached);
  }
  return attached >= 0 ? aboveStandardFds(attached) : -1;
}

// errno for a failed receive on a link (EINTR is handled by the callers).
int receiveError(ssize_t n) {
  if (n == 0) return ECONNRESET;
  return errno == EAGAIN ? ETIMEDOUT : (errno == ECONNREFUSED ? ECONNRESET : errno);
}

}  // namespace

int ServiceLink::call(FrameWriter& req, Reply* out, bool* interrupted, int* file) {
  uint64_t id = 0;
  int err = sendRequest(req, &id);
  return err != 0 ? err : awaitReply(id, out, interrupted, file);
}

int ServiceLink::settle(uint64_t id) {
  Reply reply;
  return awaitReply(id, &reply, nullptr, nullptr);
}

int ServiceLink::awaitReply(uint64_t id, Reply* out, bool* interrupted, int* file) {
  if (file != nullptr) *file = -1;
  for (;;) {
    socket_.lookForReply();
    struct iovec iov = {buffer_.data(), buffer_.size()};
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    struct msghdr msg = {};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n = recvmsg(socket_.fd(), &msg, MSG_CMSG_CLOEXEC);
    if (n < 0 && errno == EINTR) {
      // The request is out and will be answered; a caller that gives up now would lose what
      // the server read or wrote for it. So wait on, and only tell the caller.
      if (interrupted != nullptr) *interrupted = true;
      continue;
    }
    if (n <= 0) return receiveError(n);
    int attached = takeAttached(msg);
    if ((msg.msg_flags & MSG_TRUNC) != 0 || !decodeReply(buffer_.data(), static_cast<size_t>(n), out)) {
      if (attached >= 0) close(attached);
      return EPROTO;
    }
    if (binding_) {
      if (attached >= 0) close(attached);
      if (int err = takeBindAnswer(out->id, out->code); err != 0) return err;
      continue;
    }
    if (out->id == id && file != nullptr) {
      *file = attached;
      return 0;
    }
    if (attached >= 0) close(attached);
    if (out->id == id) return 0;
    // The server refused the link itself (a bound of this process): id 0, result 11.
    if (out->id == 0 && out->code == PX_RESULT_LIMIT) return EAGAIN;
    // An answer to an earlier request of this link, posted or given up on: skip it.
  }
}

int ServiceLink::callInto(FrameWriter& req, void* buf, size_t cap, uint32_t* status,
                          size_t* got, bool* interrupted) {
  uint64_t id = 0;
  int err = sendRequest(req, &id);
  if (err != 0) return err;
  uint8_t head[PX_FRAME_HEADER_SIZE];
  for (;;) {
    // The header, then the data into the caller's buffer, and whatever is beyond (a longer
    // answer than asked for, or blocks) into the link's own buffer, so nothing is cut off.
    socket_.lookForReply();
    struct iovec iov[3] = {{head, sizeof head}, {buf, cap}, {buffer_.data(), buffer_.size()}};
    struct msghdr msg = {};
    msg.msg_iov = iov;
    msg.msg_iovlen = 3;
    ssize_t n = recvmsg(socket_.fd(), &msg, 0);
    if (n < 0 && errno == EINTR) {
      if (interrupted != nullptr) *interrupted = true;  // as in call: the answer comes
      continue;
    }
    if (n <= 0) return receiveError(n);
    if ((msg.msg_flags & MSG_TRUNC) != 0 || static_cast<size_t>(n) < sizeof head) return EPROTO;
    px_frame_header h;
    decodeHeader(head, &h);
    if (h.kind != PX_FRAME_REPLY || h.data_len > static_cast<size_t>(n) - sizeof head) {
      return EPROTO;
    }
    if (binding_) {
      if (int err = takeBindAnswer(h.id, h.code); err != 0) return err;
      continue;
    }
    if (h.id == 0 && h.code == PX_RESULT_LIMIT) return EAGAIN;  // the link was refused
    if (h.id != id) continue;  // a stale answer, as in call; ours overwrites its bytes
    if (h.data_len > cap) return EPROTO;
    *status = h.code;
    *got = h.data_len;
    return 0;
  }
}

}  // namespace pxc
