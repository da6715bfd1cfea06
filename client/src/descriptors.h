// The client library's side of descriptors: node records and serialised tables of the
// descriptor service, links to the services of a description, the description as this process
// reaches it, and the process's descriptor table as this process knows it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "internal.h"
#include "posix/fd_service.h"
#include "posix/nodes.h"
#include "posix/pipe_ring.h"

namespace pxc {

// A node record: the services through which a description (or a pipe end) is reached.
struct NodeRecord {
  std::vector<px_node_entry> entries;
  // The first entry of interface type `type`, null if none.
  const px_node_entry* find(uint64_t type) const;
};

// One record of a serialised descriptor table.
struct TableRecord {
  int32_t type = 0;
  uint64_t fd = 0;
  NodeRecord node;
};

// Reads a node record at `*at` of `data` and moves `*at` past it; false when it runs short.
bool parseNode(const std::vector<uint8_t>& data, size_t* at, NodeRecord* out);
// Fetches the whole serialised table, one reply after the other as the server continues it,
// through `call` (one GetTable request and its reply: 0 or an errno value). 0, the transport's
// error, or EPROTO when a reply is malformed or does not move on.
int fetchTable(const std::function<int(FrameWriter&, Reply*)>& call, std::vector<TableRecord>* out);
// A little-endian i32 at `*at`, moving past it; false when the data runs short.
bool takeI32(const std::vector<uint8_t>& data, size_t* at, int32_t* out);

// A link to one service: a named plain channel (RT/chn/<name>) or a service of a multiplex
// (RT/chn/<16 hex digits>, bound to the service id first). Used by one thread at a time: its
// owner guards it with a mutex of its own.
class ServiceLink {
 public:
  // Opens and checks the link as every link of the library is (host/service_socket.h).
  static ServiceLink* openNamed(const std::string& name, int* err);
  static ServiceLink* openService(uint64_t channel, uint64_t service, int* err);
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
  posix::host::ServiceSocket socket_;
  std::vector<uint8_t> buffer_;  // one datagram
};

// What the item service of a file-system item tells; fixed for the life of the description.
struct ItemInfo {
  std::string path;
  int32_t type = 0;
  uint32_t openFlags = 0;
};

// A pipe end's shared page as this process maps it (fd_pipe_page.cpp).
class PipePage {
 public:
  // Maps the page that came as `file` (which is closed here) with the token and ring size the
  // server gave; null when it does not check out (size, magic, ring size).
  static PipePage* map(int file, uint32_t token, uint32_t ringSize);
  ~PipePage();
  PipePage(const PipePage&) = delete;
  PipePage& operator=(const PipePage&) = delete;
  posix::PipeRing& ring() { return ring_; }

 private:
  PipePage(void* page, size_t size, uint32_t token, uint32_t ringSize);
  void* const page_;
  const size_t size_;
  posix::PipeRing ring_;
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
  bool mayUse(uint64_t access) const;

  std::atomic<int32_t> type_;
  const NodeRecord node_;
  Slot stream_;
  Slot status_;
  Slot seek_;
  Slot resize_;
  Slot item_;
  static constexpr int kHostFileUnasked = -2;
  std::atomic<int> hostFile_{kHostFileUnasked};  // set once, under item_.mutex
  std::atomic<PipePage*> page_{nullptr};  // set once, under status_.mutex
  std::atomic<bool> pageAsked_{false};    // set once page_ holds its final value
  bool described_ = false;  // guarded by item_.mutex
  ItemInfo info_;           // guarded by item_.mutex, valid once described_
};

// read(2) and write(2) on a description's host file (fd_host_file.cpp): the count or a
// negative errno value; a write writes all of `n` unless an error ends it.
int64_t hostRead(int file, void* buf, size_t n);
int64_t hostWrite(int file, const void* buf, size_t n);

// The process's descriptor table as this process knows it: for each number the description
// behind it, or null for a number that is taken without one (a reserved number). Loaded with
// the descriptor service's GetTable on first use, so that a spawned child sees the numbers it
// inherited. A session holds the view's lock for its lifetime: requests that change the table
// and the matching local change happen as one step for the other threads.
class FdSession {
 public:
  FdSession();
  ~FdSession();
  FdSession(const FdSession&) = delete;
  FdSession& operator=(const FdSession&) = delete;

  // 0, or the errno value that kept the view from loading.
  int error() const { return err_; }
  // One request to the descriptor service; a broken link drops the whole view (the server has
  // gone, and its descriptions with it). With `file`, a host descriptor that came with the
  // reply (else -1).
  int request(FrameWriter& req, Reply* out, int* file = nullptr);
  // Sends a request whose reply nobody needs (a close of a number the view knows), without
  // waiting: the next request on the link skips its reply, and settle() waits for it. False
  // when kMaxPosted replies are outstanding already (or the view is broken): the caller then
  // makes it a request.
  bool post(FrameWriter& req);
  // Waits until the server has answered every posted request. 0 or an errno value.
  int settle();
  // Requests posted and not answered at most.
  static constexpr uint32_t kMaxPosted = 8;
  // The description of `fd`; *known tells a reserved number from a number not in the view.
  std::shared_ptr<Description> get(int fd, bool* known) const;
  void set(int fd, std::shared_ptr<Description> d);
  void erase(int fd);
  // The local description with the same node, or a new one.
  std::shared_ptr<Description> adopt(int32_t type, NodeRecord node);
  // Every number in the view, ascending, with its description.
  std::vector<std::pair<int, std::shared_ptr<Description>>> all() const;

 private:
  int err_ = 0;
};

// One request to the seekable or resizable service of `d` and its 64-bit answer: 0 or an
// errno value (EBADF when the description has gone meanwhile).
int askValue(Description& d, uint64_t iface, FrameWriter& req, uint64_t* value);

// The description behind `fd` for a read or write: 0, or EBADF (or the error of loading).
int lookupFd(int fd, std::shared_ptr<Description>* out);

// Drops the local descriptor view (after a fork, or for a new instance): the next call fetches
// the table again. Closes that were posted are settled first.
void resetFds();
// Waits until the server has served the descriptor closes this process posted, so that no
// other request overtakes them (a spawn must not copy a descriptor that was closed before
// it). Cheap when none are outstanding; called before every request to the process service.
void settleFds();

}  // namespace pxc
