// The local view of the process's descriptor table and the link to the descriptor service.
//
// The server's table is the authority; the view mirrors it for the numbers this process
// learned from the table and from replies, and keeps one Description per description, shared
// by all its local descriptors (so one set of links per description).
//
// Reads and writes look their number up without the view's lock: the low numbers are mirrored
// in slots that each hold their description by itself, so a read of a pipe touches its slot and
// its description, not the lock, the map and the checks that every other call makes.
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <array>
#include <atomic>
#include <map>
#include <tuple>

#include "descriptors.h"

namespace pxc {

namespace {

// Numbers below this are mirrored for lookups without the view's lock (FdState::fast).
constexpr int kFastFds = 256;

// One number's description as lookupFd finds it: the slot's own lock is held only while the
// pointer is copied, so lookups of different numbers, and lookups beside the calls that hold
// the view's lock, do not wait for each other.
struct FastSlot {
  std::mutex mutex;
  std::shared_ptr<Description> d;  // guarded by mutex
};

struct FdState {
  std::mutex mutex;
  bool loaded = false;           // guarded by mutex
  uint64_t instance = 0;         // guarded by mutex: runtimeGeneration() when the view loaded
  ServiceLink* link = nullptr;   // guarded by mutex: the descriptor service
  std::map<int, std::shared_ptr<Description>> fds;  // guarded by mutex; null: reserved
  uint64_t lastPosted = 0;       // guarded by mutex: id of the last posted request
  // Posted requests not yet answered; written under mutex, read without it by settleFds and
  // lookupFd.
  std::atomic<uint32_t> posted{0};
  // The link was seen alive until this time (coarse monotonic ms); written under mutex, read
  // without it by lookupFd.
  std::atomic<int64_t> aliveUntil{0};
  // The runtime generation the view was loaded for while it is loaded, else 0: the fast slots
  // count only while it is the current one. Written under mutex.
  std::atomic<uint64_t> fastFor{0};
  // fds for the numbers below kFastFds, written under mutex together with fds.
  std::array<FastSlot, kFastFds> fast;
};


// Made once and never destroyed, so that a thread still inside a call while the process exits
// never meets a destroyed view.
FdState& fs() {
  static FdState* state = new FdState;
  return *state;
}

// How long a link seen alive counts as alive. Every call looks up its number here, and asking
// the host whether the link still stands costs about as much as a file read of the host's own:
// a restarted server is noticed within this time instead.
constexpr int64_t kAliveForMs = 5;

// Whether the descriptor service's link has gone (its server stopped or was restarted).
// The coarse clock (a tick's resolution) is enough for a bound of milliseconds and costs a
// fraction of the precise one.
int64_t coarseNowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool linkGone() {
  int64_t now = coarseNowMs();
  if (now < fs().aliveUntil.load(std::memory_order_relaxed)) return false;
  if (!fs().link->alive()) return true;
  fs().aliveUntil.store(now + kAliveForMs, std::memory_order_relaxed);
  return false;
}

// Mirrors fds[fd] in the fast slots. Called with the mutex held.
void mirror(int fd, std::shared_ptr<Description> d) {
  if (fd < 0 || fd >= kFastFds) return;
  FastSlot& slot = fs().fast[fd];
  {
    std::lock_guard<std::mutex> lock(slot.mutex);
    slot.d.swap(d);
  }
  // The description the slot held is let go of out here, not under the slot's lock.
}

// Set in a forked child: the links belong to the parent, whose pid the server knows them by.
std::atomic<bool> forked{false};

void dropLocked() {
  fs().posted.store(0, std::memory_order_relaxed);
  fs().aliveUntil.store(0, std::memory_order_relaxed);
  fs().fastFor.store(0, std::memory_order_relaxed);
  delete fs().link;
  fs().link = nullptr;
  for (const auto& [fd, d] : fs().fds) mirror(fd, nullptr);
  fs().fds.clear();
  fs().loaded = false;
  fs().instance = 0;
}

// Waits for the replies to the posted requests, if any: 0 or an errno value. Called with the
// mutex held and the view loaded.
int settleLocked() {
  if (fs().posted.load(std::memory_order_relaxed) == 0) return 0;
  fs().posted.store(0, std::memory_order_relaxed);
  return fs().link->settle(fs().lastPosted);
}

// Loads the view on first use. Called with the mutex held.
int loadLocked() {
  static std::once_flag watch;
  std::call_once(watch, [] {
    pthread_atfork(nullptr, nullptr, [] { forked.store(true, std::memory_order_relaxed); });
  });
  // A new instance (px_fini and another runtime directory), a fork, or a server that has gone
  // (its descriptions went with it, and a new server on the same instance has a table of its
  // own): start again.
  // Every read and write passes here: plain loads first, the exchange only after a fork.
  bool wasForked = forked.load(std::memory_order_relaxed) &&
                   forked.exchange(false, std::memory_order_relaxed);
  if (wasForked || (fs().loaded && (fs().instance != runtimeGeneration() || linkGone()))) {
    dropLocked();
  }
  if (fs().loaded) return 0;
  // The descriptor service accepts only processes that the process service knows: one round
  // trip there registers a process that started on its own.
  FrameWriter ping(PX_CMD_GET_PARENT_ID);
  Reply reply;
  int err = transact(ping, &reply);
  if (err != 0) return err;
  fs().link = ServiceLink::openNamed(PX_FD_SERVICE_NAME, &err);
  if (fs().link == nullptr) return err;
  std::vector<TableRecord> records;
  err = fetchTable([](FrameWriter& req, Reply* out) { return fs().link->call(req, out); }, &records);
  if (err != 0) {
    dropLocked();
    return err;
  }
  fs().loaded = true;
  fs().instance = runtimeGeneration();
  // Numbers of one description carry the same node: they share one Description. Found by
  // the node's identifying entry, so that a full table loads in one pass.
  std::map<std::tuple<uint64_t, uint64_t, uint64_t>, std::shared_ptr<Description>> seen;
  for (TableRecord& rec : records) {
    const px_node_entry* id = rec.node.find(PX_IFACE_STREAM);
    if (id == nullptr && !rec.node.entries.empty()) id = &rec.node.entries[0];
    std::shared_ptr<Description>* shared =
        id != nullptr ? &seen[std::make_tuple(id->type, id->channel, id->service)] : nullptr;
    std::shared_ptr<Description> d = shared != nullptr ? *shared : nullptr;
    if (!d) d = std::make_shared<Description>(rec.type, std::move(rec.node));
    if (shared != nullptr) *shared = d;
    mirror(static_cast<int>(rec.fd), d);
    fs().fds[static_cast<int>(rec.fd)] = std::move(d);
  }
  fs().fastFor.store(fs().instance, std::memory_order_release);
  return 0;
}

}  // namespace

FdSession::FdSession() {
  fs().mutex.lock();
  err_ = loadLocked();
}

FdSession::~FdSession() { fs().mutex.unlock(); }

int FdSession::request(FrameWriter& req, Reply* out, int* file) {
  if (file) *file = -1;
  if (err_ != 0) return err_;
  int err = fs().link->call(req, out, nullptr, file);
  if (err != 0) {
    dropLocked();
    err_ = err;
  }
  // Replies come in order: the posted ones were skipped on the way to this one.
  fs().posted.store(0, std::memory_order_relaxed);
  return err;
}

bool FdSession::post(FrameWriter& req) {
  if (err_ != 0 || fs().posted.load(std::memory_order_relaxed) >= kMaxPosted) return false;
  int err = fs().link->post(req, &fs().lastPosted);
  if (err != 0) {
    dropLocked();
    err_ = err;
    return false;
  }
  fs().posted.fetch_add(1, std::memory_order_relaxed);
  return true;
}

int FdSession::settle() {
  if (err_ != 0) return err_;
  int err = settleLocked();
  if (err != 0) {
    dropLocked();
    err_ = err;
  }
  return err;
}

std::shared_ptr<Description> FdSession::get(int fd, bool* known) const {
  auto it = fs().fds.find(fd);
  *known = it != fs().fds.end();
  return *known ? it->second : nullptr;
}

void FdSession::set(int fd, std::shared_ptr<Description> d) {
  mirror(fd, d);
  fs().fds[fd] = std::move(d);
}

void FdSession::erase(int fd) {
  mirror(fd, nullptr);
  fs().fds.erase(fd);
}

std::shared_ptr<Description> FdSession::adopt(int32_t type, NodeRecord node) {
  for (auto& [fd, d] : fs().fds) {
    if (d && d->sameAs(node)) return d;
  }
  return std::make_shared<Description>(type, std::move(node));
}

std::vector<std::pair<int, std::shared_ptr<Description>>> FdSession::all() const {
  return {fs().fds.begin(), fs().fds.end()};
}

int lookupFd(int fd, std::shared_ptr<Description>* out) {
  // Without the lock while nothing is owed: no posted close (what the description shows may
  // hang on it), no fork or new instance since the view loaded, and the link seen alive
  // lately. A close on another thread meanwhile is one that came after this call.
  if (fd >= 0 && fd < kFastFds && fs().posted.load(std::memory_order_acquire) == 0 &&
      !forked.load(std::memory_order_relaxed) &&
      fs().fastFor.load(std::memory_order_acquire) == runtimeGeneration() &&
      coarseNowMs() < fs().aliveUntil.load(std::memory_order_relaxed)) {
    FastSlot& slot = fs().fast[fd];
    {
      std::lock_guard<std::mutex> lock(slot.mutex);
      *out = slot.d;
    }
    if (*out) return 0;
  }
  FdSession session;
  // What the description shows (end-of-file, a broken pipe) may hang on a posted close.
  if (session.settle() != 0) return session.error();
  bool known = false;
  *out = session.get(fd, &known);
  return *out ? 0 : EBADF;
}

bool stillNamed(int fd, const Description* d) {
  FdSession session;
  bool known = false;
  return session.error() != 0 || session.get(fd, &known).get() == d;
}

void resetFds() {
  std::lock_guard<std::mutex> lock(fs().mutex);
  // A close posted by this process is served before it lets go of the link.
  if (!forked.load(std::memory_order_relaxed)) settleLocked();
  dropLocked();
}

void settleFds() {
  // A forked child never waits for its parent's replies: its copy of the link goes unused.
  if (fs().posted.load(std::memory_order_acquire) == 0 || forked.load(std::memory_order_relaxed))
    return;
  FdSession session;
  session.settle();
}

}  // namespace pxc
