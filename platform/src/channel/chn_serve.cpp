// The serving side of a channel: one thread waits on the listening socket, every link and a
// wake-up event, accepts links, reads requests and flushes replies that did not fit at once.
//
// Fairness: every pass reads at most kBatch datagrams from each ready link (one system call),
// and epoll in level-triggered mode hands back links that are still ready on the next pass. A
// client that floods the channel gets at most kBatch requests served per pass, and everybody
// else with a request is served in the same pass. Links are bound per process
// (Chn::kMaxLinksPerProcess) and in total (kMaxLinks, then only light processes).
//
// The replies to a batch of several requests of one link are held until the last of them has
// been handled and then sent together: a client that sent them in a row (closes it does not
// wait for, then a request) wakes once instead of once per reply.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "chn_impl.h"
#include "platform/error.h"
#include "posix/wire.h"
#include "file/host_fd.h"

Ref<InMsg> Chn::receive() { return receive(kForever); }

bool Chn::hasReady() const { return impl_ && !impl_->ready.empty(); }

bool Chn::isClosed() const {
  if (!impl_) return true;
  std::lock_guard lock(impl_->mutex);
  return impl_->closed;
}

Ref<InMsg> Chn::receive(uint32_t timeoutMs) {
  if (!impl_) return nullptr;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  Ref<Chn> keep(this);  // a close() and the last release elsewhere must not free us mid-pass
  Impl& s = *impl_;
  bool tear = false;
  bool serve = false;
  {
    std::lock_guard lock(s.mutex);
    if (s.serving) {
      Error::set(EBUSY);  // one thread serves a channel
      return nullptr;
    }
    if (s.closed) {
      tear = !s.tornDown;
      s.tornDown = true;
    } else {
      s.serving = serve = true;
    }
  }
  if (tear) ChnServe::tearDown(s);
  if (!serve) return nullptr;

  // The caller has handled what it was given last: replies held for that batch go out, and
  // the descriptors that came with it and that it did not take are closed.
  if (s.releaseNext) std::exchange(s.releaseNext, nullptr)->sendHeld();
  if (s.handedFiles) std::exchange(s.handedFiles, nullptr)->closeDescriptors();

  // At least one pass, however short the time-out: what is ready now is always taken.
  Ref<InMsg> next;
  bool timedOut = false;
  for (;;) {
    {
      std::lock_guard lock(s.mutex);
      if (s.closed) break;
    }
    if (!s.ready.empty()) {
      next = std::move(s.ready.front().msg);
      if (s.ready.front().lastOfBatch) s.releaseNext = next->link();
      if (next->descriptorCount() != 0) s.handedFiles = next;
      s.ready.pop_front();
      break;
    }
    if (timedOut) {
      Error::set(ETIMEDOUT);
      break;
    }
    int waitMs = -1;
    if (timeoutMs != kForever) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      waitMs = static_cast<int>(std::max<int64_t>(left.count(), 0));
      timedOut = waitMs == 0;
    }
    if (!ChnServe::pass(s, this, waitMs)) break;
  }
  {
    std::lock_guard lock(s.mutex);
    s.serving = false;
    if (s.closed) {
      tear = !s.tornDown;
      s.tornDown = true;
      next.reset();
    }
  }
  if (tear) ChnServe::tearDown(s);
  return next;
}

bool ChnServe::pass(Chn::Impl& s, Chn* chn, int waitMs) {
  int timeout = waitMs;
  if (!s.listenWatched && s.listenFd >= 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        s.acceptResume - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      watchListener(s, true);
    else if (timeout < 0 || left.count() < timeout)
      timeout = static_cast<int>(left.count()) + 1;
  }
  epoll_event events[64];
  int n = ::epoll_wait(s.epollFd, events, 64, timeout);
  if (n < 0) {
    if (errno == EINTR) return true;
    Error::set(errno);
    return false;
  }
  for (int i = 0; i < n; ++i) {
    uint64_t key = events[i].data.u64;
    if (key == kWakeKey) {
      uint64_t count;
      ssize_t got = ::read(s.wakeFd, &count, sizeof count);
      (void)got;  // the event only says "look"; its count does not matter
      serveAttention(s);
    } else if (key == kListenKey) {
      acceptLinks(s, chn);
    } else {
      serveLink(s, key, events[i].events);
    }
  }
  return true;
}

void ChnServe::acceptLinks(Chn::Impl& s, Chn* chn) {
  DescriptorReserve::refill();
  // A bounded batch, so that a storm of connects cannot starve the links' requests.
  for (int i = 0; i < 32 && s.listenWatched; ++i) {
    {
      std::lock_guard lock(s.mutex);
      if (s.closed) return;  // a manager may close the channel from its connect
    }
    bool fromReserve = false;
    int fd = acceptLink(s.listenFd, &fromReserve);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (shortOfDescriptors(errno)) {
        // The pending connection stays ready; watching it now would spin. Look again when a
        // link closes or after a short pause.
        watchListener(s, false);
        s.acceptResume = std::chrono::steady_clock::now() + std::chrono::milliseconds(kAcceptPauseMs);
      }
      return;
    }
    addLink(s, chn, fd, fromReserve);
    if (fromReserve) DescriptorReserve::refill();
  }
}

void ChnServe::addLink(Chn::Impl& s, Chn* chn, int fd, bool fromReserve) {
  // Past the total only light processes come in, and only so far.
  size_t open = s.links.size();
  if (open >= kMaxLinks + kLightRoom) {
    refuseLink(fd);
    return;
  }
  ChnPeer peer;
  Ref<Object> ticket;
  bool onlyLight = fromReserve || open >= kMaxLinks;
  if (!admitPeer(fd, *s.peerLinks, onlyLight, &peer, &ticket)) return;
  Ref<ChnLink> link = new ChnLink(fd, peer, std::move(ticket), chn);
  uint64_t key = s.nextKey++;
  link->key_ = key;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = key;
  if (::epoll_ctl(s.epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
    link->closeSocket();
    return;
  }
  {
    std::lock_guard lock(s.mutex);
    s.links.emplace(key, Chn::Impl::Entry{link, fd, false});
  }
  if (!s.conMan || !s.conMan->connect(link)) {
    ::epoll_ctl(s.epollFd, EPOLL_CTL_DEL, fd, nullptr);
    {
      std::lock_guard lock(s.mutex);
      s.links.erase(key);
    }
    link->closeSocket();
  }
}

void ChnServe::serveLink(Chn::Impl& s, uint64_t key, uint32_t events) {
  auto it = s.links.find(key);
  if (it == s.links.end()) return;  // disconnected earlier in this pass
  Chn::Impl::Entry& entry = it->second;
  if (entry.link->dropped()) {
    disconnect(s, key);
    return;
  }
  if ((events & EPOLLOUT) && entry.watchingOut && entry.link->flush()) armOut(s, entry, false);
  // Data still queued is read before a hang-up counts: recv answers 0 once it is all gone.
  if (events & EPOLLIN)
    readBatch(s, key);
  else if (events & (EPOLLHUP | EPOLLERR))
    disconnect(s, key);
}

namespace {

// The control space of one datagram: room for InMsg::kMaxDescriptors descriptors. The host
// closes whatever more a sender attached (and says so with MSG_CTRUNC), so a datagram never
// leaves more than these in the server.
struct Control {
  alignas(cmsghdr) char bytes[CMSG_SPACE(InMsg::kMaxDescriptors * sizeof(int))];
};

// Hands the descriptors that came with `header` to `msg`, or closes them when there is no
// message for them.
void takeDescriptors(msghdr& header, InMsg* msg) {
  if (header.msg_controllen == 0) return;
  for (cmsghdr* c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t k = 0; k < count; ++k) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(c) + k * sizeof(int), sizeof fd);
      if (msg) {
        msg->addDescriptor(fd);
      } else {
        ::close(fd);
      }
    }
  }
}

}  // namespace

void ChnServe::readBatch(Chn::Impl& s, uint64_t key) {
  Chn::Impl::Entry& entry = s.links.at(key);
  iovec iov[kBatch];
  mmsghdr msgs[kBatch] = {};
  Control control[kBatch];
  for (size_t i = 0; i < kBatch; ++i) {
    iov[i] = {s.buffer.data() + i * PX_WIRE_MAX_FRAME, PX_WIRE_MAX_FRAME};
    msgs[i].msg_hdr.msg_iov = &iov[i];
    msgs[i].msg_hdr.msg_iovlen = 1;
    msgs[i].msg_hdr.msg_control = control[i].bytes;
    msgs[i].msg_hdr.msg_controllen = sizeof control[i].bytes;
  }
  // Descriptors that come with a request arrive close-on-exec: no program the server starts
  // meanwhile inherits them.
  int got = ::recvmmsg(entry.fd, msgs, kBatch, MSG_DONTWAIT | MSG_CMSG_CLOEXEC, nullptr);
  if (got < 0) {
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) disconnect(s, key);
    return;
  }
  const Ref<ChnLink> link = entry.link;  // the entry goes if the link is disconnected below
  size_t taken = 0;
  bool broken = got == 0;
  for (int i = 0; i < got; ++i) {
    // 0 is the end of the link (or an empty datagram, which is no frame either); a datagram
    // too long for any frame comes truncated.
    const size_t n = msgs[i].msg_len;
    Ref<InMsg> msg = broken || n == 0 || (msgs[i].msg_hdr.msg_flags & MSG_TRUNC) != 0
                         ? nullptr
                         : InMsg::decode(static_cast<const uint8_t*>(iov[i].iov_base), n, link);
    if (msg && msg->kind() != PX_FRAME_REQUEST) msg.reset();
    // Every datagram read gives up its descriptors, also those after a broken one.
    takeDescriptors(msgs[i].msg_hdr, msg.get());
    if (!msg) {
      broken = true;  // a protocol error ends this link only; what came before it is served
      continue;
    }
    s.ready.push_back({std::move(msg), false});
    ++taken;
  }
  if (taken > 1 && !broken) {
    link->hold();
    s.ready.back().lastOfBatch = true;
  }
  if (broken) disconnect(s, key);
}

void ChnServe::serveAttention(Chn::Impl& s) {
  std::vector<Ref<ChnLink>> waiting;
  {
    std::lock_guard lock(s.mutex);
    waiting.swap(s.attention);
  }
  for (const Ref<ChnLink>& link : waiting) {
    auto it = s.links.find(link->key_);
    if (it == s.links.end() || it->second.link.get() != link.get()) continue;
    if (link->dropped())
      disconnect(s, link->key_);
    else if (!link->flush())
      armOut(s, it->second, true);
  }
}

void ChnServe::armOut(Chn::Impl& s, Chn::Impl::Entry& entry, bool on) {
  if (entry.watchingOut == on) return;
  epoll_event event{};
  event.events = on ? EPOLLIN | EPOLLOUT : EPOLLIN;
  event.data.u64 = entry.link->key_;
  if (::epoll_ctl(s.epollFd, EPOLL_CTL_MOD, entry.fd, &event) == 0) entry.watchingOut = on;
}

void ChnServe::disconnect(Chn::Impl& s, uint64_t key) {
  auto it = s.links.find(key);
  if (it == s.links.end()) return;
  Ref<ChnLink> link = it->second.link;
  ::epoll_ctl(s.epollFd, EPOLL_CTL_DEL, it->second.fd, nullptr);
  {
    std::lock_guard lock(s.mutex);
    s.links.erase(it);
  }
  if (s.conMan) s.conMan->disconnect(link);
  link->closeSocket();
  if (!s.listenWatched && s.listenFd >= 0) watchListener(s, true);  // a descriptor came free
}

void ChnServe::watchListener(Chn::Impl& s, bool on) {
  if (s.listenWatched == on || s.listenFd < 0) return;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kListenKey;
  int rc = ::epoll_ctl(s.epollFd, on ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, s.listenFd, &event);
  if (rc == 0) s.listenWatched = on;
}

void ChnServe::tearDown(Chn::Impl& s) {
  std::unordered_map<uint64_t, Chn::Impl::Entry> links;
  std::vector<Ref<ChnLink>> waiting;
  {
    std::lock_guard lock(s.mutex);
    links.swap(s.links);
    waiting.swap(s.attention);
  }
  for (auto& [key, entry] : links) {
    if (s.epollFd >= 0) ::epoll_ctl(s.epollFd, EPOLL_CTL_DEL, entry.fd, nullptr);
    if (s.conMan) s.conMan->disconnect(entry.link);
    entry.link->closeSocket();
  }
  s.ready.clear();
  s.releaseNext.reset();
  HostFd::close(s.listenFd);
  s.listenFd = -1;
  s.listenWatched = false;
  s.conMan.reset();  // the manager often holds the channel: this breaks the cycle
}
