// The stream resolver's parts that its two source files share: the reply frame a read fills in
// place, and the serving of a request whose stream hands its waits out (stream_resolver_parked.cpp).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/chn.h"
#include "platform/message.h"
#include "platform/stream.h"
#include "posix/nodes.h"
#include "posix/wire.h"

namespace Services::Nodes::Resolvers {

// A read's reply frame: the frame header, then room for up to `size` bytes that the stream
// fills in place. Laid out as OutMsg::encode lays out a reply without blocks. The memory is the
// serving thread's own, made once: a link's thread serves one read at a time, and a frame
// that cannot go out at once is copied by the link.
class ReadReply {
 public:
  explicit ReadReply(uint64_t size) : frame_(threadFrame()), size_(size) {}

  Interfaces::MemDesc room() { return Interfaces::MemDesc::direct(bytes(), size_); }
  uint8_t* bytes() { return frame_ + PX_FRAME_HEADER_SIZE; }

  // The finished frame: status 1, the request's id and the `n` bytes read; its size in *size.
  const uint8_t* finish(uint64_t id, uint64_t n, size_t* size) {
    uint8_t* h = frame_;
    putU32(h, PX_FRAME_REPLY);
    putU32(h + 4, PX_RESULT_DONE);
    for (int i = 0; i < 8; ++i) h[8 + i] = static_cast<uint8_t>(id >> (8 * i));
    putU32(h + 16, static_cast<uint32_t>(n));
    putU32(h + 20, 0);
    *size = PX_FRAME_HEADER_SIZE + n;
    return frame_;
  }

 private:
  static uint8_t* threadFrame() {
    // Not zero-filled: only bytes the stream wrote are sent.
    thread_local std::unique_ptr<uint8_t[]> frame(
        new uint8_t[PX_FRAME_HEADER_SIZE + PX_STREAM_MAX_READ]);
    return frame.get();
  }
  static void putU32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
  }
  uint8_t* const frame_;
  const uint64_t size_;
};

// Serves a read of up to `size` bytes (`bytes` null) or a write of `*bytes` (taken over) of
// `waiting`, the same stream as `stream`, without a thread while the stream waits: the request is
// parked on the stream's word and tried again on a pool thread. Every answer goes out on the
// request's link, except that of a write that did not have to wait when `out` is given: that
// one is written into `out`, and true is answered.
bool serveParked(const Ref<Interfaces::Stream>& stream, Interfaces::WaitingStream* waiting,
                 const Ref<InMsg>& in, uint32_t timeoutMs, uint64_t size,
                 std::vector<uint8_t>* bytes, const Ref<OutMsg>& out);

}  // namespace Services::Nodes::Resolvers
