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

Ref<Fifo> Fifo::create(uint64_t capacity) {
  if (capacity == 0 || capacity > kMaxCapacity) {
    Error::set(EINVAL);
    return nullptr;
  }
  const uint64_t pageSize = (PX_PIPE_RING_OFFSET + capacity + kPageUnit - 1) / kPageUnit * kPageUnit;
  int file = HostFd::opened(::memfd_create("posix-pipe", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (file < 0) {
    Error::set(static_cast<uint32_t>(errno));
    return nullptr;
  }
  void* page = MAP_FAILED;
  // The size is sealed: a client cannot shrink the file under the server's mapping.
  if (::ftruncate(file, static_cast<off_t>(pageSize)) == 0 &&
      ::fcntl(file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
    page = ::mmap(nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  }
  if (page == MAP_FAILED) {
    Error::set(static_cast<uint32_t>(errno));
    HostFd::close(file);
    return nullptr;
  }
  return new Fifo(capacity, file, page, pageSize);
}

Fifo::Fifo(uint64_t capacity, int file, void* page, uint64_t pageSize)
    : capacity_(capacity),
      id_(g_nextFifoId.fetch_add(1, std::memory_order_relaxed)),
      file_(file),
      page_(page),
      pageSize_(pageSize),
      ring_(page, static_cast<uint32_t>(capacity), PX_PIPE_SERVER_TOKEN, false) {
  ring_.format();
}

Fifo::~Fifo() {
  ::munmap(page_, pageSize_);
  HostFd::close(file_);
}

uint64_t Fifo::write(const void* buffer, uint64_t size, uint32_t timeoutMs) {
  if (!buffer || size == 0) return 0;
  posix::PipeRing::Result r = ring_.write(buffer, size, timeoutOf(timeoutMs));
  if (r.end == posix::PipeRing::End::kCorrupt) ring_.setFlags(PX_PIPE_EOF | PX_PIPE_BROKEN);
  return r.count;
}

uint64_t Fifo::readMax(void* buffer, uint64_t size) {
  if (!buffer || size == 0) return 0;
  posix::PipeRing::Result r = ring_.readNow(buffer, size, kReadLockMs);
  if (r.end == posix::PipeRing::End::kCorrupt) ring_.setFlags(PX_PIPE_EOF | PX_PIPE_BROKEN);
  return r.count;
}

bool Fifo::waitRead(uint64_t count, uint32_t timeoutMs) {
  if (ring_.waitData(count, timeoutOf(timeoutMs))) return true;
  if (ring_.corrupt()) ring_.setFlags(PX_PIPE_EOF | PX_PIPE_BROKEN);
  return false;
}

void Fifo::setEof() { ring_.setFlags(PX_PIPE_EOF); }
void Fifo::setBroken() { ring_.setFlags(PX_PIPE_BROKEN); }
bool Fifo::eof() const { return (ring_.flags() & PX_PIPE_EOF) != 0; }
bool Fifo::broken() const { return (ring_.flags() & PX_PIPE_BROKEN) != 0; }
uint64_t Fifo::size() const { return ring_.buffered(); }

uint32_t Fifo::attachTo(const Ref<OutMsg>& out, uint64_t pid, uint32_t token) {
  if (!out || out->attached_ >= 0) return 0;
  if (token == 0) token = nextToken_.fetch_add(1, std::memory_order_relaxed);
  // Every token has been given out (a sleeper slot keeps twice the token in 32 bits).
  if (token <= PX_PIPE_SERVER_TOKEN || token >= (1u << 31)) return 0;
  out->attached_ = HostFd::opened(::fcntl(file_, F_DUPFD_CLOEXEC, 3));
  if (out->attached_ < 0) return 0;
  std::lock_guard lock(holdersMutex_);
  holders_[token] = pid;
  return token;
}

void Fifo::releaseHolder(uint32_t token) {
  if (token <= PX_PIPE_SERVER_TOKEN) return;
  ring_.release(token);
  std::lock_guard lock(holdersMutex_);
  holders_.erase(token);
}

std::vector<uint64_t> Fifo::sleeping(bool writing) const {
  std::vector<uint64_t> pids;
  std::lock_guard lock(holdersMutex_);
  for (const posix::PipeRing::Sleeper& s : ring_.sleepers()) {
    auto it = holders_.find(s.token);
    if (s.writing == writing && it != holders_.end()) pids.push_back(it->second);
  }
  return pids;
}
