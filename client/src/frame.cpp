// Encoding of request frames and decoding of reply frames (all integers little-endian).
#include <cstring>

#include "internal.h"

namespace pxc {

namespace {

void putLE(std::vector<uint8_t>& buf, size_t at, uint64_t v, size_t width) {
  for (size_t i = 0; i < width; ++i) buf[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

uint64_t getLE(const uint8_t* p, size_t width) {
  uint64_t v = 0;
  for (size_t i = 0; i < width; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
  return v;
}

}  // namespace

FrameWriter::FrameWriter(uint32_t code) : buf_(PX_FRAME_HEADER_SIZE, 0) {
  putLE(buf_, 0, PX_FRAME_REQUEST, 4);
  putLE(buf_, 4, code, 4);
}

void FrameWriter::bytes(const void* p, size_t n) {
  if (!ok_) return;
  if (n > PX_WIRE_MAX_FRAME - buf_.size()) {
    ok_ = false;
    return;
  }
  const uint8_t* b = static_cast<const uint8_t*>(p);
  buf_.insert(buf_.end(), b, b + n);
}

void FrameWriter::u32(uint32_t v) {
  uint8_t b[4];
  for (int i = 0; i < 4; ++i) b[i] = static_cast<uint8_t>(v >> (8 * i));
  bytes(b, sizeof b);
}

void FrameWriter::u64(uint64_t v) {
  uint8_t b[8];
  for (int i = 0; i < 8; ++i) b[i] = static_cast<uint8_t>(v >> (8 * i));
  bytes(b, sizeof b);
}

void FrameWriter::str(const char* s, size_t n) {
  if (n > UINT32_MAX) {
    ok_ = false;
    return;
  }
  u32(static_cast<uint32_t>(n));
  bytes(s, n);
}

void FrameWriter::str(const char* s) { str(s, std::strlen(s)); }

const std::vector<uint8_t>& FrameWriter::finish(uint64_t id) {
  putLE(buf_, 8, id, 8);
  putLE(buf_, 16, buf_.size() - PX_FRAME_HEADER_SIZE, 4);
  putLE(buf_, 20, 0, 4);
  return buf_;
}

void decodeHeader(const uint8_t* p, px_frame_header* out) {
  out->kind = static_cast<uint32_t>(getLE(p, 4));
  out->code = static_cast<uint32_t>(getLE(p + 4, 4));
  out->id = getLE(p + 8, 8);
  out->data_len = static_cast<uint32_t>(getLE(p + 16, 4));
  out->block_count = static_cast<uint32_t>(getLE(p + 20, 4));
}

bool decodeReply(const uint8_t* p, size_t n, Reply* out) {
  if (n < PX_FRAME_HEADER_SIZE || getLE(p, 4) != PX_FRAME_REPLY) return false;
  out->code = static_cast<uint32_t>(getLE(p + 4, 4));
  out->id = getLE(p + 8, 8);
  uint64_t dataLen = getLE(p + 16, 4);
  uint64_t blockCount = getLE(p + 20, 4);
  size_t at = PX_FRAME_HEADER_SIZE;
  if (dataLen > n - at) return false;
  out->data.assign(p + at, p + at + dataLen);
  at += dataLen;
  out->blocks.clear();
  for (uint64_t i = 0; i < blockCount; ++i) {
    if (n - at < PX_BLOCK_HEADER_SIZE) return false;
    uint32_t kind = static_cast<uint32_t>(getLE(p + at, 4));
    uint64_t len = getLE(p + at + 4, 4);
    at += PX_BLOCK_HEADER_SIZE;
    if (len > n - at) return false;
    out->blocks.emplace_back(kind, std::vector<uint8_t>(p + at, p + at + len));
    at += len;
  }
  return at == n;
}

bool Reply::dataU64(size_t offset, uint64_t* out) const {
  if (data.size() < offset + 8) return false;
  *out = getLE(data.data() + offset, 8);
  return true;
}

namespace {

void readRecord(const uint8_t* p, px_status_record* out) {
  out->signal = static_cast<uint32_t>(getLE(p, 4));
  out->code = static_cast<uint32_t>(getLE(p + 4, 4));
  out->exit_code = static_cast<uint32_t>(getLE(p + 8, 4));
  out->pad = static_cast<uint32_t>(getLE(p + 12, 4));
  out->pid = getLE(p + 16, 8);
  out->reserved = getLE(p + 24, 8);
}

}  // namespace

bool Reply::record(px_status_record* out) const {
  if (data.size() >= PX_SIGNAL_INFO_SIZE) {
    readRecord(data.data(), out);
    return true;
  }
  for (const auto& block : blocks) {
    if (block.first == PX_BLOCK_RECORD && block.second.size() >= PX_SIGNAL_INFO_SIZE) {
      readRecord(block.second.data(), out);
      return true;
    }
  }
  return false;
}

}  // namespace pxc
