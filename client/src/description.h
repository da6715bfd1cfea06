// An open file description as this process reaches it: its node, its links, its host file or
// shared page.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "frame.h"
#include "node_record.h"
#include "pipe_mapping.h"
#include "service_link.h"

namespace pxc {

// What the item service of a file-system item tells; fixed for the life of the description.
struct ItemInfo {
  std::string path;
  int32_t type = 0;
  uint32_t openFlags = 0;
};

// An open file description as this process reaches it: its node, and at most one link per
// service (stream, FIFO status, seekable, resizable, item), opened on first use and shared by
// every local descriptor of the description. The links close when the last holder lets go.
class Description {
 public:
  // The type of a description that was opened by this process: its reply tells no type, so
  // the item service is asked when the type is first wanted.
  static constexpr int32_t kTypeUnknown = -1;

  Description(int32_t type, NodeRecord node);
  ~Description();
  Description(const Description&) = delete;
  Description& operator=(const Description&) = delete;

  // The description's type; PX_FD_KIND_OTHER when it is unknown and cannot be learned.
  int32_t type();
  // The type as far as it is known without asking (kTypeUnknown).
  int32_t knownType() const { return type_.load(std::memory_order_relaxed); }
  const NodeRecord& node() const { return node_; }
  bool offers(uint64_t iface) const { return node_.find(iface) != nullptr; }
  // True when `node` names the same stream service (the same description).
  bool sameAs(const NodeRecord& node) const;

  // Reads up to `n` bytes: the count (0 at end of file) or a negative errno value. Without
  // `nonblock` it waits in one-second slices until data, end of file or an error.
  int64_t read(void* buf, size_t n, bool nonblock);
  // Writes `n` bytes (all of them, unless nonblock or an error): the count or a negative
  // errno value; EPIPE once the reading side has gone.
  int64_t write(const void* buf, size_t n, bool nonblock);
  // Opens the stream link now (a pipe end of the process service lives only while someone
  // is connected). 0 or an errno value.
  int connect();
  // One request to the seekable, resizable or item service: 0 or an errno value (EINVAL when
  // the description offers no such service).
  int ask(uint64_t iface, FrameWriter& req, Reply* out);
  // The item service's description: 0, EINVAL (not a file-system item), EBADF (the
  // description has gone) or a transport error. Asked once, then kept.
  int describe(ItemInfo* out);

  // The O_NONBLOCK flag, shared by the local descriptors of the description.
  std::atomic<bool> nonblock{false};

  // The host open file behind a regular file's description (fd_host_file.cpp), asked of the
  // item service once: a descriptor this process reads, writes and seeks directly, at the
  // offset the server and every holder share; -1 when there is none (not a regular file, or
  // the server could not hand it over), and then the services carry the bytes.
  int hostFile();
  // Keeps `file`, a host open file that came with the reply that made the description, as its
  // host file (the description is then known to be a regular file).
  void takeHostFile(int file);

  // The shared page of a pipe or FIFO end (fd_pipe_page.cpp), asked of the status service
  // once: through it this process moves the bytes itself. Null when the description is no
  // FIFO end or the server could not hand the page over; the services carry the bytes then.
  PipePage* pipePage();

 private:
  struct Slot {
    std::mutex mutex;
    ServiceLink* link = nullptr;  // guarded by mutex
  };
  // Opens `slot`'s link to the entry of `iface` when needed; called with slot.mutex held.
  int ensure(Slot& slot, uint64_t iface);
  // One request on `slot`; drops the link after a transport error. A host descriptor that
  // came with the reply goes to `*file` (-1 when none) when `file` is given.
  int call(Slot& slot, uint64_t iface, FrameWriter& req, Reply* out, bool* interrupted,
           int* file = nullptr);
  // Asks the status service; answers the status, or -1 when there is none to ask.
  int64_t status(uint32_t command);
  // Why a transfer of a file-system item moved nothing, as the item service tells: the end of
  // the file (0) for a read, EIO for a write; kTimedOut when nothing could move within the
  // request's time-out; else the host's errno (EPIPE, EBADF, EISDIR...).
  static constexpr int kTimedOut = -1;
  int itemEmpty(bool writing);
  Slot* slotFor(uint64_t iface);
  // Reads and writes through the shared page, with the results of read() and write().
  int64_t pageRead(PipePage& page, void* buf, size_t n, bool nonblock);
  int64_t pageWrite(PipePage& page, const void* buf, size_t n, bool nonblock);
  // Whether the status link is still open (the server has not gone), between waits.
  bool serverThere();
  // Tells the server that the page's write (or read) lock has stayed with one holder too long.
  void askRecover(bool writeLock);
  // Whether the stream entry grants `access` (PX_ACCESS_READ or PX_ACCESS_WRITE).
  bool mayUse(uint64_t access) const { return (streamAccess_ & access) != 0; }

  // What every read and write looks at comes first, so that a call touches a line or two.
  std::atomic<int32_t> type_;
  static constexpr int kHostFileUnasked = -2;
  // Set once, under item_.mutex; -1 from the start when there is no item service to ask.
  std::atomic<int> hostFile_;
  std::atomic<PipePage*> page_{nullptr};  // set once, under status_.mutex
  std::atomic<bool> pageAsked_{false};    // set once page_ holds its final value
  const uint64_t streamAccess_;           // what the stream entry grants; 0 without one
  const NodeRecord node_;
  Slot stream_;
  Slot status_;
  Slot seek_;
  Slot resize_;
  Slot item_;
  bool described_ = false;  // guarded by item_.mutex
  ItemInfo info_;           // guarded by item_.mutex, valid once described_
};

// read(2) and write(2) on a description's host file (fd_host_file.cpp): the count or a
// negative errno value; a write writes all of `n` unless an error ends it.
int64_t hostRead(int file, void* buf, size_t n);
int64_t hostWrite(int file, const void* buf, size_t n);

// One request to the seekable or resizable service of `d` and its 64-bit answer: 0 or an
// errno value (EBADF when the description has gone meanwhile).
int askValue(Description& d, uint64_t iface, FrameWriter& req, uint64_t* value);

}  // namespace pxc
