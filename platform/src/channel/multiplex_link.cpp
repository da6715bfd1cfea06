// One link of a service multiplex, served on a thread of its own: the bind that picks the
// service, then the link's requests, then the disconnect.
//
// The thread waits in poll() on the link's socket and on an eventfd that the link pokes when a
// reply had to be queued or the link was dropped. close() of the multiplex shuts the socket
// down, and a client that hangs up does the same from its side: either way poll() returns and
// the link ends, so a link thread never outlives its client or its multiplex for long.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>

#include "multiplex_core.h"
#include "posix/wire.h"
#include "file/host_fd.h"

using Libraries::Service::Multiplex;

namespace {

thread_local uint64_t t_servedPeer = 0;
thread_local ChnLink* t_servedLink = nullptr;  // held by the thread's LinkExec for its life

// Set once by Multiplex::observe() before any link thread runs; read by every link thread.
Multiplex::Observer g_observer{};

// The body of a link's thread.
class LinkExec : public Object, public Exec {
 public:
  LinkExec(Ref<Multiplex::Core> core, Ref<ChnLink> link)
      : core_(std::move(core)), link_(std::move(link)) {}
  void run() override {
    Multiplex::Core::current() = core_.get();
    t_servedPeer = link_->peerPid();
    t_servedLink = link_.get();
    MuxLinkServe::run(*core_, link_);
    t_servedLink = nullptr;
    core_->forget(link_);
    link_.reset();
    core_->threadEnded();
  }

 private:
  Ref<Multiplex::Core> core_;
  Ref<ChnLink> link_;
};

}  // namespace

uint64_t ChnLink::servedPeerPid() { return t_servedPeer; }
ChnLink* ChnLink::served() { return t_servedLink; }

void Multiplex::observe(const Observer& observer) { g_observer = observer; }

void Multiplex::Core::serve(const Ref<ChnLink>& link) {
  Ref<Thd> thread = Thd::create(new LinkExec(this, link));
  if (thread) {
    thread->setName(name->c_str());
    if (thread->start()) return;
  }
  forget(link);
  link->shutdown();
  threadEnded();  // admit() counted the thread
}

struct MuxLinkServe::State {
  Multiplex::Core& core;
  const Ref<ChnLink>& link;
  int fd;
  std::unique_ptr<uint8_t[]> buffer;  // one datagram
  uint64_t serviceId = 0;             // 0 until a bind was accepted
  Multiplex::Core::Entry bound;       // the bound service, kept for the link's life
  uint32_t kind = 0;                  // the observer's number for the bound service
};

Ref<ChnLink> MuxLinkServe::make(int fd, const ChnPeer& peer, Ref<Object> ticket) {
  return new ChnLink(fd, peer, std::move(ticket), nullptr);
}

void MuxLinkServe::run(Multiplex::Core& core, const Ref<ChnLink>& link) {
  State st{core, link, link->fd_, std::unique_ptr<uint8_t[]>(new uint8_t[PX_WIRE_MAX_FRAME]), 0, {}};
  int wake = HostFd::opened(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (wake >= 0) {
    {
      std::lock_guard lock(link->mutex_);
      link->wakeFd_ = wake;
    }
    bool watchingOut = false;  // replies wait in the link's queue for room in the socket
    for (;;) {
      pollfd fds[2] = {{st.fd, static_cast<short>(POLLIN | (watchingOut ? POLLOUT : 0)), 0},
                       {wake, POLLIN, 0}};
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        break;
      }
      if (fds[1].revents & POLLIN) {
        uint64_t count;
        ssize_t got = ::read(wake, &count, sizeof count);
        (void)got;  // the event only says "look"
        if (link->dropped()) break;
        watchingOut = !link->flush();
      } else if ((fds[0].revents & POLLOUT) && watchingOut) {
        watchingOut = !link->flush();
      }
      // Requests still queued are read before a hang-up counts: recv answers 0 once all are
      // gone.
      if (fds[0].revents & POLLIN) {
        if (!readOne(st)) break;
      } else if (fds[0].revents & (POLLHUP | POLLERR)) {
        break;
      }
    }
  }
  if (st.serviceId) {
    core.beginNotify();
    st.bound.conMan->disconnect(link);
    core.endNotify();
  }
  link->closeSocket();  // clears the link's wakeFd_ under its lock before the close below
  HostFd::close(wake);
}

// False when the link must end: it closed, or its client broke the wire format.
bool MuxLinkServe::readOne(State& st) {
  ssize_t n = ::recv(st.fd, st.buffer.get(), PX_WIRE_MAX_FRAME, MSG_DONTWAIT | MSG_TRUNC);
  if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  // MSG_TRUNC answers the real length of a datagram too long for any frame.
  if (n == 0 || static_cast<uint64_t>(n) > PX_WIRE_MAX_FRAME) return false;
  Ref<InMsg> msg = InMsg::decode(st.buffer.get(), static_cast<uint64_t>(n), st.link);
  if (!msg) return false;
  if (!st.serviceId) return bind(st, msg);
  if (msg->kind() != PX_FRAME_REQUEST) return false;
  dispatch(st, msg);
  return true;
}

// The first frame of a link names its service. A refused or unknown service is told so and
// the link ends; anything but a plain bind frame is a protocol error.
bool MuxLinkServe::bind(State& st, const Ref<InMsg>& msg) {
  if (msg->kind() != PX_FRAME_BIND || msg->code() != 0 || msg->remaining() != 0 ||
      msg->blockCount() != 0)
    return false;
  Multiplex::Core::Entry entry;
  if (!st.core.lookup(msg->id(), &entry)) {
    answerBind(st, msg->id(), PX_RESULT_FAILED);
    return false;
  }
  st.core.beginNotify();
  bool accepted = entry.conMan->connect(st.link);
  st.core.endNotify();
  if (!accepted) {
    answerBind(st, msg->id(), PX_RESULT_FAILED);
    return false;
  }
  st.serviceId = msg->id();
  st.bound = std::move(entry);
  if (g_observer.classify) st.kind = g_observer.classify(*st.bound.service);
  answerBind(st, st.serviceId, PX_RESULT_DONE);
  return true;
}

void MuxLinkServe::answerBind(State& st, uint64_t serviceId, uint32_t status) {
  Ref<OutMsg> out = OutMsg::create();
  out->setCode(status);
  st.link->sendFrame(out->encode(PX_FRAME_REPLY, serviceId));
}

void MuxLinkServe::dispatch(State& st, const Ref<InMsg>& msg) {
  auto began = std::chrono::steady_clock::now();
  Ref<OutMsg> out = OutMsg::create();
  uint32_t ret = 0;
  bool answered = st.bound.service->handle(msg, out, &ret, 0, nullptr);  // false: kept
  if (answered) {
    out->setCode(ret);
    msg->reply(out);
  }
  if (g_observer.note) g_observer.note(st.kind, msg, answered, ret, began);
}
