// A link to "posix.service", and the slice a blocked call waits in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "frame.h"
#include "host/service_socket.h"

namespace pxc {

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
  static constexpr int kReplyLimit = -2;  // the link's reply time-out, then ETIMEDOUT

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

}  // namespace pxc
