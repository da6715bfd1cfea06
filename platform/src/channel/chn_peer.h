// Admitting accepted links, shared by channels and the service multiplexes' acceptor: who is on
// the other end, how many links each process holds, the refusal of a link, and the descriptors
// kept in reserve for processes with few links when the process runs out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "platform/chn.h"

// A process with fewer links than this (on one channel, or on all multiplexes together) is
// light: it is still admitted past a channel's total bound and with the descriptor reserve.
constexpr uint32_t kLightLinks = 8;

// The links each process holds on one channel, or on every multiplex of the process together.
class PeerLinks : public Object {
 public:
  static Ref<PeerLinks> create(uint32_t perProcess) { return new PeerLinks(perProcess); }
  // A ticket for one more link of `peer`; null when it holds the bound already. The count goes
  // down again when the ticket is released (the link keeps it until its socket closes).
  Ref<Object> take(const ProcIdentity& peer);
  uint32_t held(const ProcIdentity& peer) const;

 private:
  friend class PeerTicket;
  explicit PeerLinks(uint32_t perProcess) : bound_(perProcess) {}
  void give(const ProcIdentity& peer);

  struct Hash {
    size_t operator()(const ProcIdentity& id) const { return id.pid * 1000003u ^ id.serial; }
  };
  const uint32_t bound_;
  mutable std::mutex mutex_;
  std::unordered_map<ProcIdentity, uint32_t, Hash> held_;  // guarded by mutex_; no zero counts
};

// Accepts one connection waiting on `listenFd` (non-blocking, close-on-exec). When the process
// is out of descriptors it releases spares of the reserve and tries again; *fromReserve then
// tells the caller to admit only a light process, and to refill the reserve afterwards.
// Answers the socket, or -1 with errno set.
int acceptLink(int listenFd, bool* fromReserve);
// True for the errors of an accept that ran out of descriptors or memory.
bool shortOfDescriptors(int error);

// Reads the peer of an accepted socket and applies the bounds: its links in `links`, and, when
// `onlyLight`, the rule that only a light process is admitted. Answers the peer and its ticket,
// or false after closing the socket: a peer that is not a process of this pid namespace (pid 0)
// or has ended is closed at once; a process over a bound gets one reply frame (id 0, result
// PX_RESULT_LIMIT) first.
bool admitPeer(int fd, PeerLinks& links, bool onlyLight, ChnPeer* peer, Ref<Object>* ticket);
// Sends that reply frame and closes the socket.
void refuseLink(int fd);

namespace DescriptorReserve {
// Keeps `count` spare descriptors from now on (taken at once, as far as the process can).
void keep(size_t count);
// Takes spares again up to the count kept; cheap when nothing is missing.
void refill();
}  // namespace DescriptorReserve
