// One link of a service multiplex, served a turn at a time by whichever pool thread holds the
// link's turn: the bind that picks the service, then the link's requests, then the disconnect.
//
// A turn begins when the link's socket is readable (requests, or the client hung up) or its
// eventfd was poked (a reply had to be queued, or the link was dropped). close() of the
// multiplex shuts the socket down, and a client that hangs up does the same from its side:
// either way the next turn reads the end and the link ends.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>

#include "multiplex_core.h"
#include "posix/wire.h"

using Libraries::Service::Multiplex;

namespace {

// Set once by Multiplex::observe() before any link is served; read by every pool thread.
Multiplex::Observer g_observer{};

// One datagram: each pool thread reads into its own.
uint8_t* datagram() {
  thread_local std::unique_ptr<uint8_t[]> buffer(new uint8_t[PX_WIRE_MAX_FRAME]);
  return buffer.get();
}

}  // namespace

void Multiplex::observe(const Observer& observer) { g_observer = observer; }

Ref<ChnLink> MuxLinkServe::make(int fd, const ChnPeer& peer, Ref<Object> ticket) {
  return new ChnLink(fd, peer, std::move(ticket), nullptr);
}

void MuxLinkServe::setWake(ChnLink& link, int wake) {
  std::lock_guard lock(link.mutex_);
  link.wakeFd_ = wake;
}

bool MuxLinkServe::turn(MuxServed& s, bool woken) {
  const Ref<ChnLink>& link = s.link;
  if (woken || s.watchingOut) {
    uint64_t count;
    ssize_t got = woken ? ::read(s.wake, &count, sizeof count) : 0;
    (void)got;  // the event only says "look"
    if (link->dropped()) return false;
    s.watchingOut = !link->flush();
  }
  // One request per turn: when more are queued, the link's socket is still readable when the
  // turn ends, and the link takes its place behind the others that are ready.
  ssize_t n = ::recv(socketOf(*link), datagram(), PX_WIRE_MAX_FRAME, MSG_DONTWAIT | MSG_TRUNC);
  if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  // Requests still queued are read before a hang-up counts: recv answers 0 once all are gone.
  // MSG_TRUNC answers the real length of a datagram too long for any frame.
  if (n == 0 || static_cast<uint64_t>(n) > PX_WIRE_MAX_FRAME) return false;
  Ref<InMsg> msg = InMsg::decode(datagram(), static_cast<uint64_t>(n), link);
  if (!msg) return false;
  if (!s.serviceId) return bind(s, msg);
  if (msg->kind() != PX_FRAME_REQUEST) return false;
  dispatch(s, msg);
  return true;
}

void MuxLinkServe::end(MuxServed& s) {
  if (s.serviceId) {
    s.core->beginNotify();
    s.bound.conMan->disconnect(s.link);
    s.core->endNotify();
  }
  s.link->closeSocket();  // clears the link's wakeFd_ under its lock before the caller closes it
}

// The first frame of a link names its service. A refused or unknown service is told so and
// the link ends; anything but a plain bind frame is a protocol error.
bool MuxLinkServe::bind(MuxServed& s, const Ref<InMsg>& msg) {
  if (msg->kind() != PX_FRAME_BIND || msg->code() != 0 || msg->remaining() != 0 ||
      msg->blockCount() != 0)
    return false;
  Multiplex::Core::Entry entry;
  if (!s.core->lookup(msg->id(), &entry)) {
    answerBind(s, msg->id(), PX_RESULT_FAILED);
    return false;
  }
  s.core->beginNotify();
  bool accepted = entry.conMan->connect(s.link);
  s.core->endNotify();
  if (!accepted) {
    answerBind(s, msg->id(), PX_RESULT_FAILED);
    return false;
  }
  s.serviceId = msg->id();
  s.bound = std::move(entry);
  if (g_observer.classify) s.kind = g_observer.classify(*s.bound.service);
  answerBind(s, s.serviceId, PX_RESULT_DONE);
  return true;
}

void MuxLinkServe::answerBind(MuxServed& s, uint64_t serviceId, uint32_t status) {
  Ref<OutMsg> out = OutMsg::create();
  out->setCode(status);
  s.link->sendFrame(out->encode(PX_FRAME_REPLY, serviceId));
}

void MuxLinkServe::dispatch(MuxServed& s, const Ref<InMsg>& msg) {
  auto began = std::chrono::steady_clock::now();
  Ref<OutMsg> out = OutMsg::create();
  uint32_t ret = 0;
  bool answered = s.bound.service->handle(msg, out, &ret, 0, nullptr);  // false: kept
  if (answered) {
    out->setCode(ret);
    msg->reply(out);
  }
  if (g_observer.note) g_observer.note(s.kind, msg, answered, ret, began);
}
