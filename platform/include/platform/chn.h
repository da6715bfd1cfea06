// Channels. A channel is an AF_UNIX SOCK_SEQPACKET listening socket at RT/chn/<id> (16
// lowercase hex digits), optionally named through the symlink RT/chn/<name>. Every client
// connection is a link. The thread that calls receive() runs the channel: it accepts links
// (asking the ConMan whether to keep them), notices links that closed (telling the ConMan),
// reads request frames and answers the next request.
//
// Replies may be sent from any thread and never block the sender: a link whose socket is full
// queues replies up to a bound, and a link that exceeds it is dropped.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "platform/message.h"
#include "platform/object.h"
#include "platform/proc.h"
#include "platform/string.h"

class Chn;
class ChnLink;

// A channel's connection manager: asked on every new link, told of every closed one. Both are
// called on the thread that runs the channel. (A service multiplex calls them on the pool thread
// that serves the link at that moment, one call of the multiplex at a time.)
class ConMan : public virtual RefCount {
 public:
  virtual bool connect(const Ref<ChnLink>& link) = 0;
  virtual void disconnect(const Ref<ChnLink>& link) = 0;
};

// The process on the other end of a link, read when the link was accepted: its identity (pid
// from SO_PEERCRED, serial read race-free through a pidfd) and its user.
struct ChnPeer {
  ProcIdentity identity;
  uint64_t uid = 0;
};

class ChnLink : public Object {
 public:
  uint64_t peerPid() const { return peer_.identity.pid; }
  // The pid of the peer whose multiplex link the calling thread is serving a request of (a
  // pool thread serves one link's request at a time); 0 on any other thread. For diagnostics:
  // who waits in a service.
  static uint64_t servedPeerPid();
  // The multiplex link whose request the calling thread serves; null on any other thread. A service keeps
  // per-link state with it (e.g. what to undo when that link disconnects).
  static ChnLink* served();
  // Links of every channel and multiplex of this process that are open now (for diagnostics).
  static uint64_t openLinks();
  const ProcIdentity& peerIdentity() const { return peer_.identity; }
  uint64_t peerUid() const { return peer_.uid; }
  // A 64-bit value the channel's manager keeps per link; 0 at first.
  uint64_t tag() const { return tag_.load(std::memory_order_acquire); }
  void setTag(uint64_t tag) { tag_.store(tag, std::memory_order_release); }

  // Sends one encoded frame without blocking. Answers false when the link has gone, or when
  // the reply queue passed its bound (the link is then dropped).
  bool sendFrame(std::vector<uint8_t> frame);
  // The same for a frame the caller keeps: copied only when it has to wait for room.
  bool sendFrame(const uint8_t* frame, size_t size);
  // The same with host descriptor `file` attached (SCM_RIGHTS; the receiver gets its own
  // descriptor of the same open file). A frame that cannot go out at once goes without it,
  // queued as any other: the receiver sees no descriptor and uses the services instead.
  bool sendFrame(std::vector<uint8_t> frame, int file);
  // Replies waiting for room in the link's socket.
  size_t queuedFrames() const;
  // Shuts the link down from any thread; the channel's thread then disconnects it.
  void shutdown();
  bool isOpen() const;
  // True once the link can carry nothing more: the peer closed its end, or the link was shut
  // down or dropped. A handler that waits for a long time asks this now and then, so that it
  // stops waiting for a client that has gone.
  bool peerGone() const;

  ~ChnLink() override;

  // Replies queued on one link before it is dropped.
  static constexpr size_t kMaxQueuedFrames = 1024;
  static constexpr size_t kMaxQueuedBytes = 8u << 20;

 private:
  friend class Chn;
  friend struct ChnServe;
  friend struct MuxLinkServe;  // the service multiplex serves its links outside any Chn
  ChnLink(int fd, const ChnPeer& peer, Ref<Object> ticket, Chn* channel);
  // Sends queued frames; called by the channel's thread when the socket has room. Answers true
  // when nothing is left queued.
  bool flush();
  bool flushLocked();
  // The channel's thread read several requests of this link at once: their replies wait until
  // sendHeld(), after the last of them was handled, and then go out together, so the client
  // wakes once for all of them. A reply that carries a host descriptor ends the hold early.
  void hold();
  void sendHeld();
  // Closes the socket; called by the channel's thread when it disconnects the link.
  void closeSocket();
  // True once shutdown() ran or the reply queue overflowed: the channel's thread must
  // disconnect the link.
  bool dropped() const;
  // Shuts the socket down and forgets queued replies; the caller holds mutex_.
  void dropLocked();
  // Tells whoever serves the link to look at it; the caller holds mutex_.
  void attendLocked();

  mutable std::mutex mutex_;
  int fd_;                               // guarded by mutex_; -1 once closed
  bool dropped_ = false;                 // guarded by mutex_; set by shutdown() and overflow
  std::deque<std::vector<uint8_t>> queue_;  // guarded by mutex_: replies waiting for room
  size_t queuedBytes_ = 0;               // guarded by mutex_
  bool held_ = false;                    // guarded by mutex_: replies wait for sendHeld()
  const ChnPeer peer_;
  // Guarded by mutex_: counts this link against its process's bound; released by
  // closeSocket(), so a process's count follows the sockets it holds.
  Ref<Object> ticket_;
  std::atomic<uint64_t> tag_{0};
  // Guarded by mutex_; cleared by closeSocket() before the channel goes, so a non-null value
  // always names a live channel.
  Chn* channel_;
  uint64_t key_ = 0;  // the channel thread's handle for this link; written before publication
  // Guarded by mutex_: for a link served outside a Chn (channel_ null), an eventfd that is
  // poked when replies wait or the link is dropped; -1 when none. Cleared by closeSocket().
  int wakeFd_ = -1;
};

class Chn : public Object {
 public:
  // Links one process may hold on one channel. A library pools a few idle links and each
  // blocked call holds one; a link beyond this is refused (one reply frame, id 0, result
  // PX_RESULT_LIMIT, then the close).
  static constexpr size_t kMaxLinksPerProcess = 128;

  // Keeps `count` spare descriptors that the accept paths of every channel and multiplex
  // release when the process runs out of descriptors, so that a process with few links can
  // still connect; a process with many links is then refused.
  static void reserveDescriptors(size_t count);

  // A new channel served by `conMan`. With a name, the channel is also reachable as
  // RT/chn/<name>; null (and Error set) when a live channel already holds the name, or when the
  // socket cannot be made. A stale name left by a dead process is replaced. The channel holds
  // a reference to `conMan` until it has been closed and torn down.
  static Ref<Chn> create(Ref<ConMan> conMan, Ref<String> name = nullptr);

  uint64_t id() const { return id_; }
  // Runs the channel until the next request arrives and answers it; null once closed.
  Ref<InMsg> receive();
  // The same, waiting at most `timeoutMs` (0: only what is there now); null also when nothing
  // arrived in time.
  Ref<InMsg> receive(uint32_t timeoutMs);
  // Requests read and not yet answered by receive(); only for the thread that serves.
  bool hasReady() const;
  bool isClosed() const;
  // Stops accepting, shuts every link down and removes the socket files; receive() then
  // answers null. Any thread may call it. The serving thread (the next receive(), or the
  // destructor) then disconnects the remaining links and lets go of the manager.
  void close();

  ~Chn() override;

 private:
  friend class ChnLink;
  friend struct ChnServe;
  Chn() = default;
  // A link has frames queued or was dropped: the channel's thread must look at it.
  void attend(ChnLink* link);

  struct Impl;
  Impl* impl_ = nullptr;
  uint64_t id_ = 0;
};

// RT/chn/<id as 16 lowercase hex digits>: where the channel `id` listens.
std::string chnPath(uint64_t id);

// The connect side, used by tools and tests inside the platform: a blocking client link to a
// channel by name or id path. Answers the socket, or -1 with errno set.
int chnConnect(const char* socketPath);
