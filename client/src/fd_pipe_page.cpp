// Pipes and FIFOs without a request per read or write: the end's status service hands over the
// buffer's shared page (once per description and process), and from then on bytes are copied
// in and out of it here, by the rules every holder and the server keep (posix/pipe_ring.h).
// The server still decides when the pipe is at end-of-file or broken; a blocked call waits on
// the page in one-second slices, and between slices makes sure the server is still there.
#include <errno.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <posix/wire_tables.h>

#include "descriptors.h"
#include "posix_client.h"

namespace pxc {

namespace {

constexpr uint32_t kMaxRing = 1u << 20;

}  // namespace

PipePage* PipePage::map(int file, uint32_t token, uint32_t ringSize) {
  struct stat st {};
  void* page = MAP_FAILED;
  size_t size = 0;
  if (token >= PX_PIPE_MIN_TOKEN && token <= PX_PIPE_MAX_TOKEN && ringSize > 0 && ringSize <= kMaxRing &&
      fstat(file, &st) == 0 && st.st_size >= static_cast<off_t>(PX_PIPE_RING_OFFSET + ringSize)) {
    size = static_cast<size_t>(st.st_size);
    page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  }
  close(file);  // the mapping keeps the page
  if (page == MAP_FAILED) return nullptr;
  auto* mapped = new PipePage(page, size, token, ringSize);
  if (!mapped->ring_.valid()) {
    delete mapped;
    return nullptr;
  }
  return mapped;
}

PipePage::PipePage(void* page, size_t size, uint32_t token, uint32_t ringSize)
    : page_(page), size_(size), ring_(page, ringSize, token, posix::PipeRing::Holder::kClient) {}

PipePage::~PipePage() { munmap(page_, size_); }

PipePage* Description::pipePage() {
  PipePage* known = page_.load(std::memory_order_acquire);
  if (known != nullptr || pageAsked_.load(std::memory_order_acquire)) return known;
  if (node_.find(PX_IFACE_FIFO_STATUS) == nullptr) return nullptr;
  std::lock_guard<std::mutex> lock(status_.mutex);
  if (pageAsked_.load(std::memory_order_relaxed)) return page_.load(std::memory_order_relaxed);
  FrameWriter req(PX_FIFO_CMD_SHARED_PAGE);
  Reply reply;
  int file = -1;
  if (call(status_, PX_IFACE_FIFO_STATUS, req, &reply, nullptr, &file) != 0) return nullptr;
  size_t at = 0;
  int32_t token = 0;
  int32_t ring = 0;
  PipePage* page = nullptr;
  if (file >= 0 && reply.code == PX_RESULT_DONE && takeI32(reply.data, &at, &token) &&
      takeI32(reply.data, &at, &ring)) {
    page = PipePage::map(file, static_cast<uint32_t>(token), static_cast<uint32_t>(ring));
  } else if (file >= 0) {
    close(file);
  }
  // The page's locks are freed for this process when this link closes: it stays open for the
  // description's life. A lock that another holder keeps for long is reported to the server,
  // which frees it when that holder is stopped or has no right to it.
  if (page != nullptr) page->ring().onStuckLock([this](bool writeLock) { askRecover(writeLock); });
  page_.store(page, std::memory_order_release);
  pageAsked_.store(true, std::memory_order_release);
  return page;
}

void Description::askRecover(bool writeLock) {
  FrameWriter req(PX_FIFO_CMD_RECOVER_LOCK);
  px::putRequest<PX_FIFO_CMD_RECOVER_LOCK>(req, uint32_t{writeLock ? PX_FIFO_WRITE_LOCK : PX_FIFO_READ_LOCK});
  Reply reply;
  std::lock_guard<std::mutex> lock(status_.mutex);
  call(status_, PX_IFACE_FIFO_STATUS, req, &reply, nullptr);
}

bool Description::serverThere() {
  std::lock_guard<std::mutex> lock(status_.mutex);
  return status_.link != nullptr && status_.link->alive();
}

int64_t Description::pageRead(PipePage& page, void* buf, size_t n, bool nonblock) {
  using End = posix::PipeRing::End;
  if (!mayUse(PX_ACCESS_READ)) return -EBADF;
  const int slice = nonblock ? 0 : static_cast<int>(kSliceMs);
  for (;;) {
    posix::PipeRing::Result r = page.ring().read(buf, n, slice);
    switch (r.end) {
      case End::kDone: return static_cast<int64_t>(r.count);
      case End::kEof: return 0;
      case End::kInterrupted: return -EINTR;
      case End::kTimedOut:
        if (nonblock) return -EAGAIN;
        if (!serverThere()) return -ECONNRESET;
        continue;
      default: return -EIO;  // the page breaks the rules
    }
  }
}

int64_t Description::pageWrite(PipePage& page, const void* buf, size_t n, bool nonblock) {
  using End = posix::PipeRing::End;
  if (!mayUse(PX_ACCESS_WRITE)) return -EBADF;
  const auto* bytes = static_cast<const uint8_t*>(buf);
  const int slice = nonblock ? 0 : static_cast<int>(kSliceMs);
  size_t done = 0;
  while (done < n) {
    posix::PipeRing::Result r = page.ring().write(bytes + done, n - done, slice);
    done += r.count;
    if (done == n) break;
    int fault = 0;
    switch (r.end) {
      case End::kBroken: fault = EPIPE; break;
      case End::kInterrupted: fault = EINTR; break;
      case End::kTimedOut:
        if (nonblock) fault = EAGAIN;
        else if (!serverThere()) fault = ECONNRESET;
        break;
      case End::kDone: break;
      default: fault = EIO; break;
    }
    if (fault != 0) return done > 0 ? static_cast<int64_t>(done) : -fault;
  }
  return static_cast<int64_t>(done);
}

}  // namespace pxc
