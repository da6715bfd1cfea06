// A client's link to one service socket of the runtime directory (RT/chn/<name>): how it is
// opened and checked, and how a frame goes out and comes back within a time-out. The client
// library's links and posixctl's link to the introspection service are all this one type.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "posix/skip_backoff.h"

namespace posix::host {

// Longest wait for the reply to a request that the server answers at once: a reply that takes
// this long means the server hangs. `POSIX_REPLY_TIMEOUT_MS` (1 to 3600000) sets another, read
// whenever a link opens; replyTimeoutMs() answers the one in force.
constexpr int kReplyTimeoutMs = 20000;
constexpr int kMaxReplyTimeoutMs = 3600000;
int replyTimeoutMs();

// Milliseconds of the monotonic clock, for deadlines of ServiceSocket::receive.
int64_t monotonicMs();

// Who accepted a connection: the listening process's pid and effective uid; pid 0 when the
// host would not tell.
struct Listener {
  int64_t pid = 0;
  uint32_t uid = 0;
};
// Asks who listens on the socket at `path` without waiting and without sending anything: 0
// with *out filled, EAGAIN when someone listens but its backlog is full (who cannot be
// asked), else the errno of the connect (ENOENT, ECONNREFUSED for a socket left behind...).
int probeListener(const std::string& path, Listener* out);

class ServiceSocket {
 public:
  // receive() deadline meaning: block, and let the link's own receive time-out (the
  // replyTimeoutMs() in force when it opened) end the wait with EAGAIN.
  static constexpr int64_t kLinkTimeout = -1;

  ServiceSocket() = default;
  ~ServiceSocket();
  ServiceSocket(const ServiceSocket&) = delete;
  ServiceSocket& operator=(const ServiceSocket&) = delete;

  // Connects to the socket RT/chn/<name> of the runtime directory `rt`: 0 or an errno value.
  // RT must be the caller's own first (ENOENT when it does not exist, EACCES when it is unsafe:
  // see runtimeDirFault), and the process that accepted the link must run as the caller's
  // effective uid (EACCES otherwise); both are checked before anything is sent, so nothing
  // reaches a server planted by another user. The descriptor is close-on-exec and above the
  // standard numbers, so it never becomes a program's standard input or output.
  int open(const std::string& rt, const std::string& name);
  bool isOpen() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  // Sends one frame: 0, ECONNRESET when the other end has gone, or another errno value.
  int send(const void* frame, size_t size) const;
  // The same with `count` descriptors attached (SCM_RIGHTS): the server receives copies.
  int send(const void* frame, size_t size, const int* fds, size_t count) const;
  // Receives one datagram into `buffer`: its full length (more than `capacity` when it was cut
  // off), or a negative errno value: -EAGAIN once `deadlineMs` (monotonicMs) has passed or, with
  // kLinkTimeout, once the link's receive time-out has; -ECONNRESET when the other end has
  // gone; -EINTR when a signal handler ran (the caller decides whether to wait on).
  ssize_t receive(void* buffer, size_t capacity, int64_t deadlineMs);
  // The pid of the process at the other end, 0 if unknown.
  int64_t peerPid() const;

  // Looks for the reply to the last request sent for up to kReplyLookNs before the caller
  // sleeps for it: true when something came to read. Most requests are answered within some
  // tens of microseconds, and a sleep with the wake-up after it costs as much again where
  // waking an idle processor passes through a hypervisor. A look that nothing reached in time
  // makes the next 16, 32, ... looks for replies to the same command be skipped, so requests
  // that wait (a spawn, a wait for a child) soon sleep at once, and the others look on.
  // receive() looks by itself when it blocks.
  bool lookForReply();

 private:
  // The slot of a command's looks: a link serves one service, whose codes are small.
  static constexpr size_t kLookSlots = 32;
  // Notes the command of a frame that went out (its header's code).
  void sent(const void* frame, size_t size) const;

  int fd_ = -1;
  // One thread at a time uses a link; relaxed atomics keep a second one harmless.
  mutable std::atomic<uint32_t> lastCommand_{0};
  SkipBackoff looks_[kLookSlots];  // per command slot
};

// How long lookForReply looks: a round trip that needs no wake-up of the caller.
constexpr int64_t kReplyLookNs = 50000;

// Moves `fd` to a number above 2 (close-on-exec) when it took a standard descriptor that was
// closed. Answers the descriptor, or -1 with errno set (`fd` is closed then).
int aboveStandardFds(int fd);

}  // namespace posix::host
