// Encoding and decoding of channel frames: a 24-byte header (kind, code, id, data length,
// block count), the data stream, then the typed blocks. Every integer is little-endian; the
// hosts we run on are little-endian too, but the fields are assembled byte by byte so that the
// layout never depends on the compiler's structure padding.
#include "platform/message.h"

#include <cstring>

#include "file/host_fd.h"
#include "platform/chn.h"
#include "posix/wire.h"

namespace {

uint32_t getU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

uint64_t getU64(const uint8_t* p) {
  return static_cast<uint64_t>(getU32(p)) | static_cast<uint64_t>(getU32(p + 4)) << 32;
}

void putU32(std::vector<uint8_t>& out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

void putU64(std::vector<uint8_t>& out, uint64_t value) {
  putU32(out, static_cast<uint32_t>(value));
  putU32(out, static_cast<uint32_t>(value >> 32));
}

}  // namespace

Ref<InMsg> InMsg::decode(const uint8_t* frame, uint64_t size, Ref<ChnLink> link) {
  if (!frame || size < PX_FRAME_HEADER_SIZE || size > PX_WIRE_MAX_FRAME) return nullptr;
  uint32_t dataLen = getU32(frame + 16);
  uint32_t blockCount = getU32(frame + 20);
  uint64_t pos = PX_FRAME_HEADER_SIZE;
  if (dataLen > size - pos) return nullptr;
  pos += dataLen;
  // Every block needs at least its header: a count that cannot fit is refused before any
  // space is reserved for it.
  if (blockCount > (size - pos) / PX_BLOCK_HEADER_SIZE) return nullptr;

  Ref<InMsg> msg = new InMsg();
  msg->kind_ = getU32(frame);
  msg->code_ = getU32(frame + 4);
  msg->id_ = getU64(frame + 8);
  msg->data_.assign(frame + PX_FRAME_HEADER_SIZE, frame + PX_FRAME_HEADER_SIZE + dataLen);
  msg->blocks_.reserve(blockCount);
  for (uint32_t i = 0; i < blockCount; ++i) {
    if (size - pos < PX_BLOCK_HEADER_SIZE) return nullptr;
    uint32_t kind = getU32(frame + pos);
    uint32_t length = getU32(frame + pos + 4);
    pos += PX_BLOCK_HEADER_SIZE;
    if (length > size - pos) return nullptr;
    msg->blocks_.push_back({kind, static_cast<uint32_t>(msg->blockBytes_.size()), length});
    msg->blockBytes_.insert(msg->blockBytes_.end(), frame + pos, frame + pos + length);
    pos += length;
  }
  if (pos != size) return nullptr;  // trailing bytes: the sender's framing is broken
  msg->link_ = std::move(link);
  return msg;
}

uint64_t InMsg::read(void* buffer, uint64_t size, uint32_t /*timeoutMs*/) {
  uint64_t n = remaining() < size ? remaining() : size;
  if (n) std::memcpy(buffer, data_.data() + cursor_, n);
  cursor_ += n;
  return n;
}

uint64_t InMsg::read(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) {
  if (buffer.kind != Interfaces::MemDesc::kDirect || !buffer.address) return 0;
  return read(buffer.pointer(), size < buffer.size ? size : buffer.size, timeoutMs);
}

InMsg::Block InMsg::block(uint32_t index) const {
  if (index >= blocks_.size()) return {0, nullptr, 0};
  const BlockSpan& span = blocks_[index];
  return {span.kind, blockBytes_.data() + span.offset, span.length};
}

InMsg::~InMsg() { closeDescriptors(); }

void InMsg::addDescriptor(int fd) {
  if (descriptorCount_ < kMaxDescriptors) {
    descriptors_[descriptorCount_++].store(HostFd::opened(fd), std::memory_order_relaxed);
  } else {
    HostFd::close(HostFd::opened(fd));
  }
}

int InMsg::takeDescriptor(uint32_t index) {
  if (index >= descriptorCount_) return -1;
  return descriptors_[index].exchange(-1, std::memory_order_acq_rel);
}

void InMsg::closeDescriptors() {
  for (uint32_t i = 0; i < descriptorCount_; ++i) HostFd::close(takeDescriptor(i));
}

void InMsg::peek(void* out, uint64_t size) const {
  if (out && !data_.empty()) std::memcpy(out, data_.data(), size < data_.size() ? size : data_.size());
}

bool InMsg::reply(const Ref<OutMsg>& out) {
  if (!out || !link_) return false;
  if (out->attachedFile() >= 0) return link_->sendFrame(out->encode(PX_FRAME_REPLY, id_), out->attachedFile());
  return link_->sendFrame(out->encode(PX_FRAME_REPLY, id_));
}

Ref<OutMsg> OutMsg::create() { return new OutMsg(); }

OutMsg::~OutMsg() { HostFd::close(attached_); }

uint64_t OutMsg::frameSize() const { return PX_FRAME_HEADER_SIZE + data_.size() + blockBytes_; }

uint64_t OutMsg::write(const void* bytes, uint64_t size, uint32_t /*timeoutMs*/) {
  if (size == 0 || !bytes) return 0;
  // All or nothing: a value cut in half would be worse than a short write the caller sees.
  if (size > PX_WIRE_MAX_FRAME - frameSize()) return 0;
  const auto* p = static_cast<const uint8_t*>(bytes);
  data_.insert(data_.end(), p, p + size);
  return size;
}

uint64_t OutMsg::write(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) {
  if (buffer.kind != Interfaces::MemDesc::kDirect) return 0;
  return write(static_cast<const void*>(buffer.pointer()), size < buffer.size ? size : buffer.size,
               timeoutMs);
}

bool OutMsg::addBlock(uint32_t kind, const void* bytes, uint32_t length) {
  if (length && !bytes) return false;
  if (PX_BLOCK_HEADER_SIZE + static_cast<uint64_t>(length) > PX_WIRE_MAX_FRAME - frameSize())
    return false;
  const auto* p = static_cast<const uint8_t*>(bytes);
  blocks_.push_back({kind, length ? std::vector<uint8_t>(p, p + length) : std::vector<uint8_t>()});
  blockBytes_ += PX_BLOCK_HEADER_SIZE + length;
  return true;
}

std::vector<uint8_t> OutMsg::encode(uint32_t kind, uint64_t id) const {
  std::vector<uint8_t> frame;
  frame.reserve(frameSize());
  putU32(frame, kind);
  putU32(frame, code_);
  putU64(frame, id);
  putU32(frame, static_cast<uint32_t>(data_.size()));
  putU32(frame, static_cast<uint32_t>(blocks_.size()));
  frame.insert(frame.end(), data_.begin(), data_.end());
  for (const OutBlock& block : blocks_) {
    putU32(frame, block.kind);
    putU32(frame, static_cast<uint32_t>(block.bytes.size()));
    frame.insert(frame.end(), block.bytes.begin(), block.bytes.end());
  }
  return frame;
}
