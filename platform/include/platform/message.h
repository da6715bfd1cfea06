// Messages of a channel. An InMsg is one received request frame: its command code, its data
// stream (read with a cursor) and its typed blocks; it remembers the link it came on so that
// any thread can answer it, once or several times. An OutMsg is a reply being built.
// Both are streams too: an InMsg can be read and an OutMsg written wherever an
// Interfaces::Stream is wanted (a table serialises itself straight into a reply).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "platform/object.h"
#include "platform/stream.h"
#include "platform/sync.h"

class ChnLink;
class OutMsg;

class InMsg : public Object, public virtual Interfaces::Stream {
 public:
  // Builds the message from one received datagram; null when the frame breaks the wire
  // format (then the link must be closed).
  static Ref<InMsg> decode(const uint8_t* frame, uint64_t size, Ref<ChnLink> link);

  uint32_t kind() const { return kind_; }
  uint32_t code() const { return code_; }
  uint64_t id() const { return id_; }
  const Ref<ChnLink>& link() const { return link_; }
  // When the request was received: a request kept to be answered later is timed from here.
  std::chrono::steady_clock::time_point arrived() const { return arrived_; }

  // Reads at most `size` bytes of the data stream into `buffer` and answers the count moved;
  // fewer than asked means the stream ended. The time-out is accepted for the stream shape:
  // a received message is complete, so a read never waits.
  uint64_t read(void* buffer, uint64_t size, uint32_t timeoutMs = kForever);
  uint64_t remaining() const { return data_.size() - cursor_; }
  // The whole data stream's length, and a copy of its first bytes (up to `size`; the rest of
  // `out` is left as it was), wherever the cursor stands.
  uint64_t dataSize() const { return data_.size(); }
  void peek(void* out, uint64_t size) const;

  // The stream side: reads the data stream into direct memory; a received request cannot be
  // written, so write answers 0.
  uint32_t dataKind() override { return 1; }
  Interfaces::MemDesc map(Ref<Object> /*client*/) override { return {}; }
  void unmap(Ref<Object> /*client*/) override {}
  uint64_t read(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  uint64_t write(Interfaces::MemDesc, uint64_t, uint32_t) override { return 0; }
  uint64_t readable() override { return remaining(); }
  uint64_t control(uint32_t, uint64_t) override { return 0; }

  struct Block {
    uint32_t kind;
    const uint8_t* data;
    uint32_t length;
  };
  uint32_t blockCount() const { return static_cast<uint32_t>(blocks_.size()); }
  Block block(uint32_t index) const;

  // Host descriptors that came with the request (SCM_RIGHTS), at most kMaxDescriptors, in the
  // order they were sent. A handler that uses one takes it (and owns it from then on: -1 when
  // there is none at `index` or it was taken already); the channel closes every one not taken
  // once the service asks for its next request, and the message closes what is left when it
  // goes. So a descriptor a client sends with a request that takes none is never kept.
  static constexpr uint32_t kMaxDescriptors = 4;
  uint32_t descriptorCount() const { return descriptorCount_; }
  int takeDescriptor(uint32_t index);
  void closeDescriptors();
  // For the channel that received the request: hands the message `fd` (counted, HostFd).
  void addDescriptor(int fd);

  // Sends `out` as a reply to this request (same id, out's code as status, its data and
  // blocks) on the link the request came from. Answers false, and does nothing else, when the
  // link has gone or could not take the reply.
  bool reply(const Ref<OutMsg>& out);

 private:
  InMsg() = default;
  ~InMsg() override;
  uint32_t kind_ = 0;
  uint32_t code_ = 0;
  uint64_t id_ = 0;
  std::chrono::steady_clock::time_point arrived_ = std::chrono::steady_clock::now();
  std::vector<uint8_t> data_;
  uint64_t cursor_ = 0;
  struct BlockSpan {
    uint32_t kind;
    uint32_t offset;  // into blockBytes_
    uint32_t length;
  };
  std::vector<BlockSpan> blocks_;
  std::vector<uint8_t> blockBytes_;
  Ref<ChnLink> link_;
  // Set by the serving thread before the message is handed out; taken or closed by whoever
  // handles it, and by the serving thread's next receive (hence atomic).
  std::atomic<int> descriptors_[kMaxDescriptors] = {-1, -1, -1, -1};
  uint32_t descriptorCount_ = 0;
};

class OutMsg : public Object, public virtual Interfaces::Stream {
 public:
  static Ref<OutMsg> create();

  void setCode(uint32_t code) { code_ = code; }
  uint32_t code() const { return code_; }

  // Appends to the data stream; answers fewer bytes than asked (0) once the encoded frame
  // would pass the largest frame size.
  uint64_t write(const void* bytes, uint64_t size, uint32_t timeoutMs = kForever);
  // The stream side: appends direct memory to the data stream, all or nothing as above; a
  // reply being built cannot be read, so read answers 0.
  uint32_t dataKind() override { return 1; }
  Interfaces::MemDesc map(Ref<Object> /*client*/) override { return {}; }
  void unmap(Ref<Object> /*client*/) override {}
  uint64_t read(Interfaces::MemDesc, uint64_t, uint32_t) override { return 0; }
  uint64_t write(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  uint64_t readable() override { return 0; }
  uint64_t control(uint32_t, uint64_t) override { return 0; }

  // Appends a typed block; false when it would not fit.
  bool addBlock(uint32_t kind, const void* bytes, uint32_t length);

  const std::vector<uint8_t>& data() const { return data_; }
  // The encoded frame of this message as a frame of `kind` with `id`.
  std::vector<uint8_t> encode(uint32_t kind, uint64_t id) const;
  // Bytes the encoded frame takes.
  uint64_t frameSize() const;
  // The host descriptor that travels with the reply (SCM_RIGHTS), or -1. The message owns it;
  // the platform's own objects attach it (LocalFileDescriptionFSItem::attachTo).
  int attachedFile() const { return attached_; }

  ~OutMsg() override;

 private:
  friend class LocalFileDescriptionFSItem;
  friend class Fifo;
  OutMsg() = default;
  int attached_ = -1;
  uint32_t code_ = 0;
  std::vector<uint8_t> data_;
  struct OutBlock {
    uint32_t kind;
    std::vector<uint8_t> bytes;
  };
  std::vector<OutBlock> blocks_;
  uint64_t blockBytes_ = 0;  // block headers and contents so far
};
