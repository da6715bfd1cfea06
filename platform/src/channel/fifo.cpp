// The bounded byte buffer, kept in a shared page of a host memory file so that clients can be
// handed the page and move bytes without a request (the ring's rules: posix/pipe_ring.h).
//
// A page that a client broke (impossible counters) tells everyone to stop: the server then
// sets both flags, so readers see end-of-file and writers a broken pipe.
#include "platform/fifo.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
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

// Rounds of readNow or writeNow that find what they would wait for gone by the time they arm.
constexpr int kNowRounds = 16;

// A random token (PX_PIPE_MIN_TOKEN to PX_PIPE_MAX_TOKEN) from the host's random source, read
// a batch at a time. Should the source fail, a mix of the clock and a counter stands in, which
// is no longer hard to guess.
uint32_t randomToken() {
  static std::mutex mutex;
  static uint32_t batch[64];
  static size_t left = 0;
  static uint64_t fallback = 0;
  std::lock_guard lock(mutex);
  for (;;) {
    if (left == 0) {
      ssize_t got;
      do {
        got = ::getrandom(batch, sizeof batch, 0);
      } while (got < 0 && errno == EINTR);
      if (got != static_cast<ssize_t>(sizeof batch)) {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        uint64_t z = (fallback += 0x9E3779B97F4A7C15ull) ^ static_cast<uint64_t>(ts.tv_nsec);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        batch[0] = static_cast<uint32_t>(z ^ (z >> 31));
        got = sizeof batch[0];
      }
      left = static_cast<size_t>(got) / sizeof batch[0];
    }
    uint32_t token = batch[--left] & PX_PIPE_MAX_TOKEN;
    if (token >= PX_PIPE_MIN_TOKEN) return token;
  }
}

}  // namespace

// The page, and a view of it for what takes no lock (making it, flags, counts, freeing what a
// token holds): the server's reads and writes take a Hand each.
struct Fifo::Page {
  Page(int f, void* m, uint64_t size, uint32_t capacity)
      : file(f), map(m), mapSize(size), ring(m, capacity, 0, posix::PipeRing::Holder::kServer) {}
  ~Page() {
    ::munmap(map, mapSize);
    HostFd::close(file);
  }
  const int file;  // the page's memory file, kept to hand it out
  void* const map;
  const uint64_t mapSize;
  posix::PipeRing ring;
};

// One read, write or wait of the server's own on the page, under a token drawn for it alone and
// live until it ends: so a lock that still shows the token afterwards (a client copied it
// there) holds a value nobody has, and is freed as such.
struct Fifo::Hand {
  Hand(Fifo& f, Page& page)
      : fifo(f), token(enlist(f)),
        ring(page.map, page.ring.ringSize(), token, posix::PipeRing::Holder::kServer) {
    // The server's own calls wait for a lock too: one that stays with a holder is looked at.
    ring.onStuckLock([&f](bool writeLock) { f.recover(writeLock); });
  }
  ~Hand() {
    std::lock_guard lock(fifo.holdersMutex_);
    fifo.serverTokens_.erase(std::find(fifo.serverTokens_.begin(), fifo.serverTokens_.end(), token));
  }
  Hand(const Hand&) = delete;
  Hand& operator=(const Hand&) = delete;

  static uint32_t enlist(Fifo& f) {
    std::lock_guard lock(f.holdersMutex_);
    uint32_t token = f.freshTokenLocked();
    f.serverTokens_.push_back(token);
    return token;
  }

  Fifo& fifo;
  const uint32_t token;
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
  posix::PipeRing::Result r = Hand(*this, *p).ring.write(buffer, size, timeoutOf(timeoutMs));
  if (r.end == posix::PipeRing::End::kCorrupt) raise(PX_PIPE_EOF | PX_PIPE_BROKEN);
  if (r.end == posix::PipeRing::End::kTimedOut && r.count == 0) sweep(p);
  return r.count;
}

uint64_t Fifo::readMax(void* buffer, uint64_t size) {
  Page* p = made();  // no page, no bytes
  if (!p || !buffer || size == 0) return 0;
  posix::PipeRing::Result r = Hand(*this, *p).ring.readNow(buffer, size, kReadLockMs);
  if (r.end == posix::PipeRing::End::kCorrupt) raise(PX_PIPE_EOF | PX_PIPE_BROKEN);
  if (r.end == posix::PipeRing::End::kTimedOut) sweep(p);
  return r.count;
}

bool Fifo::waitRead(uint64_t count, uint32_t timeoutMs) {
  Page* p = page();
  if (!p) return eof();
  if (Hand(*this, *p).ring.waitData(count, timeoutOf(timeoutMs))) return true;
  if (p->ring.corrupt()) raise(PX_PIPE_EOF | PX_PIPE_BROKEN);
  return false;
}

uint64_t Fifo::readNow(void* buffer, uint64_t size, Armed* armed) {
  const uint32_t stuckOn = armed->lockHolder;
  *armed = Armed{};
  Page* p = page();
  if (!p || !buffer || size == 0) return 0;
  Hand hand(*this, *p);
  // A round ends with bytes, with an armed wait, or with end-of-file; it goes again only when
  // what it would have waited for came meanwhile (a few times: a page whose lock a client flips
  // over and over does not keep the caller here, it answers nothing yet).
  for (int round = 0; round < kNowRounds; ++round) {
    posix::PipeRing::Result r = hand.ring.readNow(buffer, size, 0);
    if (r.end == posix::PipeRing::End::kCorrupt) raise(PX_PIPE_EOF | PX_PIPE_BROKEN);
    if (r.count > 0 || r.end == posix::PipeRing::End::kCorrupt) return r.count;
    if (p->ring.arm(false, 1, armed)) {
      if (armed->lockHolder != 0 && armed->lockHolder == stuckOn) recover(false);
      return 0;
    }
    if (p->ring.buffered() == 0 && (p->ring.flags() & (PX_PIPE_EOF | PX_PIPE_BROKEN)) != 0) return 0;
  }
  return 0;
}

uint64_t Fifo::writeNow(const void* buffer, uint64_t size, Armed* armed) {
  const uint32_t stuckOn = armed->lockHolder;
  *armed = Armed{};
  if (!buffer || size == 0) return 0;
  Page* p = page();
  if (!p) return 0;
  Hand hand(*this, *p);
  const auto* bytes = static_cast<const uint8_t*>(buffer);
  uint64_t done = 0;
  for (int round = 0; round < kNowRounds; ++round) {
    posix::PipeRing::Result r = hand.ring.writeNow(bytes + done, size - done);
    done += r.count;
    if (r.end == posix::PipeRing::End::kCorrupt) raise(PX_PIPE_EOF | PX_PIPE_BROKEN);
    if (r.end != posix::PipeRing::End::kTimedOut || done == size) return done;
    const uint64_t need = size <= capacity_ ? size : 1;
    if (p->ring.arm(true, need, armed)) {
      if (armed->lockHolder != 0 && armed->lockHolder == stuckOn) recover(true);
      return done;
    }
  }
  return done;
}

void Fifo::disarm(const Armed& armed) {
  if (Page* p = made()) p->ring.disarm(armed);
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
  std::lock_guard lock(holdersMutex_);
  if (token == 0) token = freshTokenLocked();
  if (token < PX_PIPE_MIN_TOKEN || token > PX_PIPE_MAX_TOKEN) return 0;
  out->attached_ = HostFd::opened(::fcntl(p->file, F_DUPFD_CLOEXEC, 3));
  if (out->attached_ < 0) return 0;
  holders_[token] = pid;
  return token;
}

uint32_t Fifo::freshTokenLocked() const {
  for (;;) {
    uint32_t token = randomToken();
    if (holders_.count(token) == 0 &&
        std::find(serverTokens_.begin(), serverTokens_.end(), token) == serverTokens_.end())
      return token;
  }
}

posix::PipeRing::HolderState Fifo::holderOf(uint32_t token) const {
  using State = posix::PipeRing::HolderState;
  uint64_t pid = 0;
  {
    std::lock_guard lock(holdersMutex_);
    auto it = holders_.find(token);
    if (it != holders_.end()) {
      pid = it->second;
    } else {
      bool server = std::find(serverTokens_.begin(), serverTokens_.end(), token) != serverTokens_.end();
      return server ? State::kRunning : State::kNobody;
    }
  }
  return Proc::stopped(pid) ? State::kStopped : State::kRunning;
}

bool Fifo::recover(bool writeLock) {
  Page* p = made();
  if (!p) return false;
  return p->ring.recover(writeLock, [this](uint32_t token) { return holderOf(token); });
}

void Fifo::releaseHolder(uint32_t token) {
  Page* p = made();  // a token is only given out with the page
  if (token < PX_PIPE_MIN_TOKEN || !p) return;
  p->ring.release(token);
  {
    std::lock_guard lock(holdersMutex_);
    holders_.erase(token);
  }
  sweep(p);
}

void Fifo::sweep(Page* p) {
  // A value in a lock or a sleeper slot that is no live token (a holder forged it, or copied
  // one it saw) goes; so does a stopped holder's lock that can be taken over.
  recover(true);
  recover(false);
  for (const posix::PipeRing::Sleeper& s : p->ring.sleepers()) {
    if (holderOf(s.token) == posix::PipeRing::HolderState::kNobody) p->ring.release(s.token);
  }
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
