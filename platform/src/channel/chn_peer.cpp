#include "chn_peer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "file/host_fd.h"
#include "process/identity.h"
#include "posix/wire.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77  // Linux 6.5: a pidfd of the process that connected
#endif

// Holds one count of a PeerLinks until it is released.
class PeerTicket : public Object {
 public:
  PeerTicket(Ref<PeerLinks> links, const ProcIdentity& peer) : links_(std::move(links)), peer_(peer) {}
  ~PeerTicket() override { links_->give(peer_); }

 private:
  Ref<PeerLinks> links_;
  ProcIdentity peer_;
};

Ref<Object> PeerLinks::take(const ProcIdentity& peer) {
  {
    std::lock_guard lock(mutex_);
    uint32_t& count = held_[peer];
    if (count >= bound_) return nullptr;  // (an entry just made with 0 cannot be at a bound)
    ++count;
  }
  return new PeerTicket(this, peer);
}

uint32_t PeerLinks::held(const ProcIdentity& peer) const {
  std::lock_guard lock(mutex_);
  auto it = held_.find(peer);
  return it == held_.end() ? 0 : it->second;
}

void PeerLinks::give(const ProcIdentity& peer) {
  std::lock_guard lock(mutex_);
  auto it = held_.find(peer);
  if (it != held_.end() && --it->second == 0) held_.erase(it);
}

namespace {

// The peer's pid, user and serial. The serial is read race-free: the pidfd pins the process that
// connected (and, where it is the pidfd's inode, is it), and a process still running after a
// /proc read of its start time had that pid all along. A peer that has ended already is no
// client any more.
bool readCredentials(int fd, ChnPeer* peer) {
  ucred cred{};
  socklen_t size = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0 || cred.pid <= 0) return false;
  int pidfd = -1;
  size = sizeof pidfd;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &size) != 0) {
    pidfd = ProcIdentityRead::openPidfd(static_cast<uint64_t>(cred.pid));  // before Linux 6.5
  }
  if (pidfd < 0) return false;
  uint64_t serial = 0;
  const uint64_t pid = static_cast<uint64_t>(cred.pid);
  bool known = ProcIdentityRead::serialOf(pidfd, pid, &serial) && !ProcIdentityRead::hasEnded(pidfd);
  ::close(pidfd);
  if (!known) return false;
  peer->identity = ProcIdentity{pid, serial};
  peer->uid = cred.uid;
  return true;
}

}  // namespace

void refuseLink(int fd) {
  px_frame_header header{PX_FRAME_REPLY, PX_RESULT_LIMIT, 0, 0, 0};
  ssize_t n = ::send(fd, &header, sizeof header, MSG_DONTWAIT | MSG_NOSIGNAL);
  (void)n;  // a client that cannot take it learns from the close alone
  HostFd::close(fd);
}

bool shortOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

bool admitPeer(int fd, PeerLinks& links, bool onlyLight, ChnPeer* peer, Ref<Object>* ticket) {
  if (!readCredentials(fd, peer)) {
    HostFd::close(fd);
    return false;
  }
  if (onlyLight && links.held(peer->identity) >= kLightLinks) {
    refuseLink(fd);
    return false;
  }
  *ticket = links.take(peer->identity);
  if (!*ticket) {
    refuseLink(fd);
    return false;
  }
  return true;
}
