// Request frames as the library builds them and replies as it decodes them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

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

}  // namespace pxc
