// The bounded byte buffer, kept in a shared page of a host memory file so that clients can be
// handed the page and move bytes without a request (the ring's rules: posix/pipe_ring.h).
//
// A page that a client broke (impossible counters) tells everyone to stop: the server then
// sets both flags, so readers see end-of-file and writers a broken pipe.
#include "platform/fifo.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <climits>

#include "file/host_fd.h"
#include "platform/error.h"
#include "platform/proc.h"

namespace {

std::atomic<uint64_t> g_nextFifoId{1};

constexpr uint64_t kMaxCapacity = 1u << 20;
constexpr uint64_t kPageUnit = 4096;

int timeoutOf(uint32_t timeoutMs) {
  if (timeoutMs == kForever) return posix::PipeRing::kForever;
  return timeoutMs > static_cast<uint32_t>(INT_MAX) ? INT_MAX : static_cast<int>(timeoutMs);
}

// How long the server waits for a client's reader to let go of the ring in readMax, which
// must not wait for bytes: a client keeps it for one copy, unless it breaks the rules.
constexpr int kReadLockMs = 1000;

}  // namespace

// The page and the server's own hands on it, as PX_PIPE_SERVER_TOKEN.
struct Fifo::Page {
  Page(int f, void* m, uint64_t size, uint32_t capacity)
      : file(f), map(m), mapSize(size),
        ring(m, capacity, PX_PIPE_SERVER_TOKEN, posix::PipeRing::Holder::kServer) {}
  ~Page() {
    ::munmap(map, mapSize);
    HostFd::close(file);
  }
  const int file;  // the page's memory file, kept to hand it out
  void* const map;
  const uint64_t mapSize;
  posix::PipeRing ring;
};

Ref<Fifo> Fifo::create(uint64_t capacity) {
  if (capacity == 0 || capacity > kMaxCapacity) {
    Error::set(EINVAL);
    return nullptr;
  }
  return new Fifo(capacity);
}

Fifo::Fifo(uint64_t capacity)
    : capacity_(capacity), id_(g_nextFifoId.fetch_add(1, std::memory_order_relaxed)) {}

Fifo::~Fifo() { delete made(); }

Fifo::Page* Fifo::page() {
  if (Page* p = made()) return p;
  std::lock_guard lock(pageMutex_);
  if (Page* p = made()) return p;
  if ((flags_.load() & (PX_PIPE_EOF | PX_PIPE_BROKEN)) == (PX_PIPE_EOF | PX_PIPE_BROKEN))
    return nullptr;  // both sides gone (or a page that could not be made): nothing to move
  const uint64_t size = (PX_PIPE_RING_OFFSET + capacity_ + kPageUnit - 1) / kPageUnit * kPageUnit;
  int file = HostFd::opened(::memfd_create("posix-pipe", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  void* map = MAP_FAILED;
  // The size is sealed: a client cannot shrink the file under the server's mapping.
  if (file >= 0 && ::ftruncate(file, static_cast<off_t>(size)) == 0 &&
      ::fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
    map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  }
  if (map == MAP_FAILED) {
    Error::set(static_cast<uint32_t>(errno));
    HostFd::close(file);
    flags_.fetch_or(PX_PIPE_EOF | PX_PIPE_BROKEN);
    return nullptr;
  }
  Page* p = new Page(file, map, size, static_cast<uint32_t>(capacity_));
  p->ring.format();
  // The server's own calls wait for a lock too: one that stays with a holder is looked at.
  p->ring.onStuckLock([this](bool writeLock) { recover(writeLock); });
  if (uint32_t bits = flags_.load()) p->ring.setFlags(bits);
  page_.store(p, std::memory_order_release);
  return p;
}

void Fifo::raise(uint32_t bits) {
  std::lock_guard lock(pageMutex_);
  flags_.fetch_or(bits);
  if (Page* p = made()) p->ring.setFlags(bits);
}

uint64_t Fifo::write(const void* buffer, uint64_t size, uint32_t timeoutMs) {
  if (!buffer || size == 0) return 0;
  Page* p = page();
  if (!p) return 0;
  posix::PipeRing::Result r = p->ring.write(buffer, size, timeoutOf(timeoutMs));
  if (r.end == posix::PipeRing::End::kCorrupt) raise(PX_PIPE_EOF | PX_PIPE_BROKEN);
  return r.count;
}

uint64_t Fifo::readMax(void* buffer, uint64_t size) {
  Page* p = made();  // no page, no bytes
  if (!p || !buffer || size == 0) return 0;
  posix::PipeRing::Result r = p->ring.readNow(buffer, size, kReadLockMs);
  if (r.end == posix::PipeRing::End::kCorrupt) raise(PX_PIPE_EOF | PX_PIPE_BROKEN);
  return r.count;
}

bool Fifo::waitRead(uint64_t count, uint32_t timeoutMs) {
  Page* p = page();
  if (!p) return eof();
  if (p->ring.waitData(count, timeoutOf(timeoutMs))) return true;
  if (p->ring.corrupt()) raise(PX_PIPE_EOF | PX_PIPE_BROKEN);
  return false;
}

void Fifo::setEof() { raise(PX_PIPE_EOF); }
void Fifo::setBroken() { raise(PX_PIPE_BROKEN); }
bool Fifo::eof() const { return (flags_.load() & PX_PIPE_EOF) != 0; }
bool Fifo::broken() const { return (flags_.load() & PX_PIPE_BROKEN) != 0; }

uint64_t Fifo::size() const {
  Page* p = made();
  return p ? p->ring.buffered() : 0;
}

uint32_t Fifo::attachTo(const Ref<OutMsg>& out, uint64_t pid, uint32_t token) {
  Page* p = out && out->attached_ < 0 ? page() : nullptr;
  if (!p) return 0;
  if (token == 0) token = nextToken_.fetch_add(1, std::memory_order_relaxed);
  // Every token has been given out (a sleeper slot keeps twice the token in 32 bits).
  if (token <= PX_PIPE_SERVER_TOKEN || token >= (1u << 31)) return 0;
  out->attached_ = HostFd::opened(::fcntl(p->file, F_DUPFD_CLOEXEC, 3));
  if (out->attached_ < 0) return 0;
  std::lock_guard lock(holdersMutex_);
  holders_[token] = pid;
  return token;
}

bool Fifo::recover(bool writeLock) {
  Page* p = made();
  if (!p) return false;
  using State = posix::PipeRing::HolderState;
  return p->ring.recover(writeLock, [this](uint32_t token) {
    std::lock_guard lock(holdersMutex_);
    auto it = holders_.find(token);
    if (it == holders_.end()) return State::kNobody;
    return Proc::stopped(it->second) ? State::kStopped : State::kRunning;
  });
}

void Fifo::releaseHolder(uint32_t token) {
  Page* p = made();  // a token is only given out with the page
  if (token <= PX_PIPE_SERVER_TOKEN || !p) return;
  p->ring.release(token);
  std::lock_guard lock(holdersMutex_);
  holders_.erase(token);
}

std::vector<uint64_t> Fifo::sleeping(bool writing) const {
  std::vector<uint64_t> pids;
  Page* p = made();
  if (!p) return pids;
  std::lock_guard lock(holdersMutex_);
  for (const posix::PipeRing::Sleeper& s : p->ring.sleepers()) {
    auto it = holders_.find(s.token);
    if (s.writing == writing && it != holders_.end()) pids.push_back(it->second);
  }
  return pids;
}
