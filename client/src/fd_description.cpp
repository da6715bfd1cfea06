// Reading and writing a description through its node: the stream service moves the bytes, and
// after a transfer of 0 bytes the FIFO status service (a pipe end) or the item service (an
// opened item) tells end-of-file, broken pipe, time-out and the host's errors apart.
// Requests wait at most one slice in the server, so a blocking call notices a server that
// went away, and a host signal handler can end it between slices.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include <posix/wire_tables.h>

#include "descriptors.h"
#include "posix_client.h"

namespace pxc {

namespace {

// Bytes per write request: well inside one frame, and far above the 4096 bytes that a FIFO
// takes whole, so that a write of up to 4096 bytes is one request and arrives unsplit.
constexpr size_t kWriteChunk = 65536;

// What the node's entry of interface `iface` grants (PX_ACCESS_*); 0 without one.
uint64_t accessOf(const NodeRecord& node, uint64_t iface) {
  const px_node_entry* entry = node.find(iface);
  return entry != nullptr ? entry->access : 0;
}

}  // namespace

Description::Description(int32_t type, NodeRecord node)
    : type_(type),
      hostFile_(node.find(PX_IFACE_FS_ITEM) != nullptr ? kHostFileUnasked : -1),
      streamAccess_(accessOf(node, PX_IFACE_STREAM)),
      node_(std::move(node)) {}

Description::~Description() {
  delete page_.load(std::memory_order_relaxed);
  for (Slot* slot : {&stream_, &status_, &seek_, &resize_, &item_}) delete slot->link;
  if (int file = hostFile_.load(std::memory_order_relaxed); file >= 0) close(file);
}

Description::Slot* Description::slotFor(uint64_t iface) {
  switch (iface) {
    case PX_IFACE_STREAM: return &stream_;
    case PX_IFACE_FIFO_STATUS: return &status_;
    case PX_IFACE_SEEKABLE: return &seek_;
    case PX_IFACE_RESIZABLE: return &resize_;
    case PX_IFACE_FS_ITEM: return &item_;
    default: return nullptr;
  }
}

int32_t Description::type() {
  int32_t known = type_.load(std::memory_order_relaxed);
  if (known != kTypeUnknown) return known;
  ItemInfo info;
  return describe(&info) == 0 ? info.type : PX_FD_KIND_OTHER;
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
                      bool* interrupted, int* file) {
  int err = ensure(slot, iface);
  if (err != 0) return err;
  err = slot.link->call(req, out, interrupted, file);
  if (err != 0) {
    delete slot.link;
    slot.link = nullptr;
  }
  return err;
}

int Description::connect() {
  std::lock_guard<std::mutex> lock(stream_.mutex);
  int err = ensure(stream_, PX_IFACE_STREAM);
  // Connected means the service has taken the link: the end lives from here on.
  if (err == 0) err = stream_.link->confirm();
  if (err != 0) {
    delete stream_.link;
    stream_.link = nullptr;
  }
  return err;
}

int Description::ask(uint64_t iface, FrameWriter& req, Reply* out) {
  Slot* slot = slotFor(iface);
  if (slot == nullptr) return EINVAL;
  std::lock_guard<std::mutex> lock(slot->mutex);
  return call(*slot, iface, req, out, nullptr);
}

int Description::itemEmpty(bool writing) {
  // The item service tells why the host moved nothing: the end of the data, nothing within
  // the time-out (EAGAIN), or the host's error (EPIPE, EBADF for the wrong direction, EISDIR).
  FrameWriter req(PX_ITEM_CMD_LAST_EMPTY);
  Reply reply;
  size_t at = 0;
  int32_t why = 0;
  if (ask(PX_IFACE_FS_ITEM, req, &reply) != 0 || reply.code != PX_ITEM_RESULT_OK ||
      !takeI32(reply.data, &at, &why) || why < 0) {
    why = 0;
  }
  if (why == EAGAIN) return kTimedOut;
  return why == 0 && writing ? EIO : why;
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
  if (int file = hostFile(); file >= 0) return hostRead(file, buf, n);
  if (PipePage* page = pipePage()) return pageRead(*page, buf, n, nonblock);
  const uint64_t want = std::min<uint64_t>(n, PX_STREAM_MAX_READ);
  // One reader at a time per description in this process; the server serialises the readers
  // of an end anyway, and the status answered after a read then belongs to that read.
  std::lock_guard<std::mutex> lock(stream_.mutex);
  for (;;) {
    int err = ensure(stream_, PX_IFACE_STREAM);
    if (err != 0) return -err;
    FrameWriter req(PX_STREAM_READ);
    px::putRequest<PX_STREAM_READ>(req, want, uint32_t{nonblock ? 0 : kSliceMs});
    uint32_t code = 0;
    size_t got = 0;
    bool interrupted = false;
    // The bytes land in the caller's buffer straight from the socket: a file read moves up
    // to 64 KiB per request, and a copy more per request is a good part of its cost.
    err = stream_.link->callInto(req, buf, want, &code, &got, &interrupted);
    if (err != 0) {
      delete stream_.link;
      stream_.link = nullptr;
      return -err;
    }
    if (code != PX_RESULT_DONE) return -EPROTO;
    if (got > 0) return static_cast<int64_t>(got);
    int64_t st = status(PX_FIFO_CMD_STATUS);
    // No status service: nothing tells more, an empty read is the end of the data; a
    // file-system item's own description tells the rest.
    if (st < 0 && !offers(PX_IFACE_FS_ITEM)) return 0;
    if (st < 0) {
      int why = itemEmpty(false);
      if (why != kTimedOut) return -why;
    }
    if (st == PX_FIFO_STATUS_EOF) return 0;
    if (st == PX_FIFO_STATUS_NOT_READABLE) return -EBADF;  // also once the end has gone
    // A time-out (5), or 0 when another reader's call overwrote the status: nothing yet.
    if (nonblock) return -EAGAIN;
    if (interrupted) return -EINTR;
  }
}

int64_t Description::write(const void* buf, size_t n, bool nonblock) {
  if (n == 0) return 0;
  if (int file = hostFile(); file >= 0) return hostWrite(file, buf, n);
  if (PipePage* page = pipePage()) return pageWrite(*page, buf, n, nonblock);
  const uint8_t* bytes = static_cast<const uint8_t*>(buf);
  size_t done = 0;
  std::lock_guard<std::mutex> lock(stream_.mutex);
  while (done < n) {
    size_t chunk = std::min(n - done, kWriteChunk);
    FrameWriter req(PX_STREAM_WRITE);
    px::putRequest<PX_STREAM_WRITE>(req, uint32_t{nonblock ? 0 : kSliceMs}, px::Bytes{bytes + done, chunk});
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
    int64_t st = status(PX_FIFO_CMD_STATUS);
    int fault = 0;
    // Not a FIFO: an empty write has no reason to retry, unless an item ran out its slice.
    if (st < 0) {
      fault = offers(PX_IFACE_FS_ITEM) ? itemEmpty(true) : EIO;
    }
    if (fault == kTimedOut) fault = 0;
    if (st == PX_FIFO_STATUS_BROKEN) fault = EPIPE;
    if (st == PX_FIFO_STATUS_NOT_WRITABLE || st == PX_FIFO_STATUS_NOT_READABLE) fault = EBADF;
    if (fault == 0 && nonblock) fault = EAGAIN;
    if (fault == 0 && interrupted) fault = EINTR;
    if (fault != 0) return done > 0 ? static_cast<int64_t>(done) : -fault;
  }
  return static_cast<int64_t>(done);
}

}  // namespace pxc
