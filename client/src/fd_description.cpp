// Reading and writing a description through its node: the stream service moves the bytes, and
// after a transfer of 0 bytes the FIFO status service tells end-of-file, broken pipe and
// time-out apart. Requests wait at most one slice in the server, so a blocking call notices a
// server that went away, and a host signal handler can end it between slices.
#include <errno.h>

#include <algorithm>
#include <cstring>

#include "internal.h"

namespace pxc {

namespace {

constexpr uint32_t kSliceMs = 1000;
// Bytes per write request: well inside one frame, and far above the 4096 bytes that a FIFO
// takes whole, so that a write of up to 4096 bytes is one request and arrives unsplit.
constexpr size_t kWriteChunk = 65536;

// Command 1 of the FIFO status service (the status of the last call) and its answers.
constexpr uint32_t kStatusLast = 1;
constexpr int64_t kEndOfFile = 1;
constexpr int64_t kBrokenPipe = 2;
constexpr int64_t kNotReadable = 3;  // also: the end has gone
constexpr int64_t kNotWritable = 4;

}  // namespace

Description::Description(int32_t type, NodeRecord node) : type_(type), node_(std::move(node)) {}

Description::~Description() {
  delete stream_.link;
  delete status_.link;
}

bool Description::sameAs(const NodeRecord& other) const {
  const px_node_entry* mine = node_.find(PX_IFACE_STREAM);
  const px_node_entry* theirs = other.find(PX_IFACE_STREAM);
  if (mine == nullptr && !node_.entries.empty()) mine = &node_.entries[0];
  if (theirs == nullptr && !other.entries.empty()) theirs = &other.entries[0];
  return mine != nullptr && theirs != nullptr && mine->type == theirs->type &&
         mine->channel == theirs->channel && mine->service == theirs->service;
}

int Description::ensure(Slot& slot, uint64_t iface) {
  if (slot.link != nullptr) return 0;
  const px_node_entry* entry = node_.find(iface);
  if (entry == nullptr) return EINVAL;  // the description offers no such service
  int err = 0;
  slot.link = ServiceLink::openService(entry->channel, entry->service, &err);
  if (slot.link != nullptr) return 0;
  // No channel any more: the service has closed, which happens when the server went away.
  return err == ENOENT || err == ECONNREFUSED ? ECONNRESET : err;
}

int Description::call(Slot& slot, uint64_t iface, FrameWriter& req, Reply* out,
                      bool* interrupted) {
  int err = ensure(slot, iface);
  if (err != 0) return err;
  err = slot.link->call(req, out, interrupted);
  if (err != 0) {
    delete slot.link;
    slot.link = nullptr;
  }
  return err;
}

int Description::connect() {
  std::lock_guard<std::mutex> lock(stream_.mutex);
  return ensure(stream_, PX_IFACE_STREAM);
}

int64_t Description::status(uint32_t command) {
  if (node_.find(PX_IFACE_FIFO_STATUS) == nullptr) return -1;
  std::lock_guard<std::mutex> lock(status_.mutex);
  FrameWriter req(command);
  Reply reply;
  if (call(status_, PX_IFACE_FIFO_STATUS, req, &reply, nullptr) != 0) return -1;
  return reply.code;
}

int64_t Description::read(void* buf, size_t n, bool nonblock) {
  if (n == 0) return 0;
  const uint64_t want = std::min<uint64_t>(n, PX_STREAM_MAX_READ);
  // One reader at a time per description in this process; the server serialises the readers
  // of an end anyway, and the status answered after a read then belongs to that read.
  std::lock_guard<std::mutex> lock(stream_.mutex);
  for (;;) {
    FrameWriter req(PX_STREAM_READ);
    req.u64(want);
    req.u32(nonblock ? 0 : kSliceMs);
    Reply reply;
    bool interrupted = false;
    int err = call(stream_, PX_IFACE_STREAM, req, &reply, &interrupted);
    if (err != 0) return -err;
    if (reply.code != PX_RESULT_DONE) return -EPROTO;
    if (!reply.data.empty()) {
      size_t got = std::min<size_t>(reply.data.size(), want);
      std::memcpy(buf, reply.data.data(), got);
      return static_cast<int64_t>(got);
    }
    int64_t st = status(kStatusLast);
    if (st < 0) return 0;  // nothing to ask: an empty read is the end of the data
    if (st == kEndOfFile) return 0;
    if (st == kNotReadable) return -EBADF;
    // A time-out (5), or 0 when another reader's call overwrote the status: nothing yet.
    if (nonblock) return -EAGAIN;
    if (interrupted) return -EINTR;
  }
}

int64_t Description::write(const void* buf, size_t n, bool nonblock) {
  const uint8_t* bytes = static_cast<const uint8_t*>(buf);
  size_t done = 0;
  std::lock_guard<std::mutex> lock(stream_.mutex);
  while (done < n) {
    size_t chunk = std::min(n - done, kWriteChunk);
    FrameWriter req(PX_STREAM_WRITE);
    req.u32(nonblock ? 0 : kSliceMs);
    req.bytes(bytes + done, chunk);
    Reply reply;
    bool interrupted = false;
    int err = call(stream_, PX_IFACE_STREAM, req, &reply, &interrupted);
    if (err != 0) return done > 0 ? static_cast<int64_t>(done) : -err;
    uint64_t count = 0;
    if (reply.code != PX_RESULT_DONE || !reply.dataU64(0, &count) || count > chunk) {
      return done > 0 ? static_cast<int64_t>(done) : -EPROTO;
    }
    done += count;
    if (count > 0) continue;
    int64_t st = status(kStatusLast);
    int fault = 0;
    if (st < 0) fault = EIO;  // not a FIFO: an empty write has no reason to retry
    if (st == kBrokenPipe) fault = EPIPE;
    if (st == kNotWritable || st == kNotReadable) fault = EBADF;
    if (fault == 0 && nonblock) fault = EAGAIN;
    if (fault == 0 && interrupted) fault = EINTR;
    if (fault != 0) return done > 0 ? static_cast<int64_t>(done) : -fault;
  }
  return static_cast<int64_t>(done);
}

}  // namespace pxc
