// The library's link to one service of a description or to a named channel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "frame.h"
#include "host/service_socket.h"

namespace pxc {

// A link to one service: a named plain channel (RT/chn/<name>) or a service of a multiplex
// (RT/chn/<16 hex digits>, bound to the service id first). Used by one thread at a time: its
// owner guards it with a mutex of its own.
class ServiceLink {
 public:
  // Opens and checks the link as every link of the library is (host/service_socket.h).
  static ServiceLink* openNamed(const std::string& name, int* err);
  // The same for `service` of the multiplex on `channel`. The bind goes out at once and its
  // answer is taken with the first reply, so that a link's first request does not wait a round
  // trip for it: a refused bind then fails that request (ECONNRESET: the service has gone with
  // its description; EAGAIN: the server refused this process another link).
  static ServiceLink* openService(uint64_t channel, uint64_t service, int* err);
  // Waits for the bind's answer if it has not come yet: 0 or an errno value, as for call.
  int confirm();
  ~ServiceLink() = default;
  ServiceLink(const ServiceLink&) = delete;
  ServiceLink& operator=(const ServiceLink&) = delete;

  // False once the other end has closed the link (its server has gone). Never waits.
  bool alive() const;
  // One request and its reply: 0 or ECONNRESET (the server went), ETIMEDOUT, EPROTO... After
  // an error the link is unusable. `*interrupted` (may be null) is set when a host signal
  // handler ran while the call waited. A host descriptor that came with the reply goes to
  // `*file` (above the standard numbers, close-on-exec; -1 when none came), or is closed when
  // `file` is null.
  int call(FrameWriter& req, Reply* out, bool* interrupted = nullptr, int* file = nullptr);
  // As call, for a reply whose data goes straight into `buf` (room for `cap` bytes) with no
  // copy in between: *status is the reply's result code, *got the length of its data. EPROTO
  // when the data does not fit. Blocks after the data are not looked at.
  int callInto(FrameWriter& req, void* buf, size_t cap, uint32_t* status, size_t* got,
               bool* interrupted);
  // Sends a request without waiting for its reply, which a later call skips or settle()
  // takes: 0 or an errno value. *id is the request's id.
  int post(FrameWriter& req, uint64_t* id) { return sendRequest(req, id); }
  // Waits for the reply to the posted request `id` (and so for every one posted before it):
  // 0 or an errno value, as for call.
  int settle(uint64_t id);

 private:
  ServiceLink();
  // Sends the request with a fresh id: 0 or an errno value.
  int sendRequest(FrameWriter& req, uint64_t* id);
  // Receives until the reply to `id`, skipping earlier ones; the rest as for call.
  int awaitReply(uint64_t id, Reply* out, bool* interrupted, int* file);
  // Takes the answer to the bind (the link's first reply): 0 when the service took the link.
  int takeBindAnswer(uint64_t id, uint32_t code);
  posix::host::ServiceSocket socket_;
  std::vector<uint8_t> buffer_;  // one datagram
  bool binding_ = false;      // a bind went out whose answer is still to come
  uint64_t boundService_ = 0;  // the service the bind named
};

}  // namespace pxc
