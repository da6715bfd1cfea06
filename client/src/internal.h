// Internal pieces of the client library: frame encoding and decoding, connections to
// "posix.service", the connection pool, the children the process started, and result codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "host/runtime_rule.h"
#include "host/service_socket.h"
#include "posix/posix_service.h"
#include "posix/wire.h"

namespace pxc {

// Builds one request frame. Every put fails (and the frame stays failed) once the frame would
// pass the largest datagram, so the caller learns E2BIG instead of sending what the server
// would treat as a protocol error.
class FrameWriter {
 public:
  explicit FrameWriter(uint32_t code);
  void u32(uint32_t v);
  void u64(uint64_t v);
  void bytes(const void* p, size_t n);
  void str(const char* s, size_t n);
  void str(const char* s);
  bool ok() const { return ok_; }
  // The encoded frame with request id `id`.
  const std::vector<uint8_t>& finish(uint64_t id);

 private:
  std::vector<uint8_t> buf_;
  bool ok_ = true;
};

// One decoded reply.
struct Reply {
  uint32_t code = 0;
  uint64_t id = 0;
  std::vector<uint8_t> data;
  std::vector<std::pair<uint32_t, std::vector<uint8_t>>> blocks;

  // The u64 at `offset` of the data stream; false when the stream is too short.
  bool dataU64(size_t offset, uint64_t* out) const;
  // The 32-byte record of the reply: the data stream when it holds one, else a block of kind
  // PX_BLOCK_RECORD. False when the reply carries none.
  bool record(px_status_record* out) const;
};

// Decodes a reply frame; false when it is not one or does not parse exactly.
bool decodeReply(const uint8_t* p, size_t n, Reply* out);
// Decodes the 24-byte header at `p` (any kind).
void decodeHeader(const uint8_t* p, px_frame_header* out);

// The runtime directory (host/runtime_rule.h), found on first use and kept until reset().
const std::string& runtimeDir();
void resetRuntimeDir();
// Changes whenever resetRuntimeDir runs (px_fini); never 0.
uint64_t runtimeGeneration();
// Whether the runtime directory is the caller's own: a directory, not a symlink, owned by the
// effective uid and closed to group and others (what the server itself demands). 0; ENOENT
// when it does not exist; EACCES when it is someone else's or open to others. Every link
// checks it again as it opens (ServiceSocket::open).
int checkRuntimeDir();

// Longest wait for the reply to a request that the server answers at once: a reply that
// takes this long means the server hangs (ETIMEDOUT).
constexpr int kReplyTimeoutMs = posix::host::kReplyTimeoutMs;
// Longest wait of one step of a blocking read or write (in the server, or on a pipe's shared
// page): between steps a blocked call notices a server that went away.
constexpr uint32_t kSliceMs = 1000;

// Moves `fd` above the standard numbers, so that no link or file of the library is ever a
// program's standard input or output.
using posix::host::aboveStandardFds;

// A link to "posix.service" (RT/chn/posix.service, opened and checked as every link of the
// library is: host/service_socket.h). Used by one thread at a time.
class Connection {
 public:
  // receive() time-outs besides a count of milliseconds.
  static constexpr int kForever = -1;
  static constexpr int kReplyLimit = -2;  // kReplyTimeoutMs, then ETIMEDOUT

  // Connects; null with *err set (ENOENT, ECONNREFUSED, EACCES...).
  static Connection* open(int* err);
  ~Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Sends a frame; 0 or an errno value (ECONNRESET when the server has gone).
  int send(const std::vector<uint8_t>& frame, const int* fds = nullptr, size_t fdCount = 0);
  // Receives the next reply; 0, EAGAIN after `timeoutMs` milliseconds (or ETIMEDOUT for
  // kReplyLimit), ECONNRESET when the server has gone, EPROTO for a frame that is not a reply.
  int receive(Reply* out, int timeoutMs);
  // Waits for the reply with request id `id`, skipping stale replies to earlier requests;
  // `timeoutMs` as for receive.
  int await(uint64_t id, Reply* out, int timeoutMs);
  // The server's pid, 0 if unknown.
  int64_t peerPid() const { return socket_.peerPid(); }

 private:
  Connection();
  posix::host::ServiceSocket socket_;
  std::vector<uint8_t> buffer_;  // one datagram
};

uint64_t nextRequestId();
// The pool: a connection for one call. release(conn, reusable=false) closes it.
Connection* acquire(int* err, bool* reused);
void release(Connection* conn, bool reusable);
// One request on a pooled connection: 0 or an errno value; retries once on a fresh connection
// when a pooled one turns out to lead to a server that has gone before the request was sent.
// A request the server answers at once fails with ETIMEDOUT when no reply comes within
// kReplyTimeoutMs; one that may legitimately wait (`mayWait`: a blocking wait) waits for ever.
// `fdCount` descriptors at `fds` go with the request (the server gets copies).
int transact(FrameWriter& req, Reply* out, bool mayWait = false, const int* fds = nullptr,
             size_t fdCount = 0);
// Drops every pooled connection when the process is a fork of the one that made them.
void checkFork();
void resetPool();

// Children this process started and has not collected yet (for non-blocking waits).
void childStarted(uint64_t pid);
void childCollected(uint64_t pid);
void childForget(uint64_t pid);  // the server says it is no child of ours
bool childKnown(uint64_t pid);
bool anyChildKnown();
void resetChildren();

// Signal state: the dedicated connection and the local queue.
void resetSignals();

// errno for a result code of the server (see posix_client.h); `zeroErrno` for result 0.
int errnoForResult(uint32_t code, int zeroErrno);

// Sets errno and answers -1 (for the C calls).
int fail(int err);

}  // namespace pxc
