// Moving bytes and the offset of an opened host item. Every call works on the one host open
// file description, so the offset it moves is the one every holder of the item shares: reads
// and writes use read(2) and write(2), never the positioned calls.
//
// A read or write goes straight between the caller's memory and the file, so a reader that
// hands in the memory of its reply gets the bytes there without a copy. An item that may block
// has a non-blocking host descriptor, so no host call waits: each call waits for readiness
// within its time-out and answers by then with what it moved.
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>

#include "platform/error.h"
#include "platform/local_file.h"
#include "platform/sync.h"

namespace {

uint64_t moved(ssize_t n) {
  if (n < 0) {
    Error::set(static_cast<uint32_t>(errno));
    return 0;
  }
  return static_cast<uint64_t>(n);
}

uint64_t clampSize(const Interfaces::MemDesc& buffer, uint64_t size) {
  uint64_t n = size < buffer.size ? size : buffer.size;
  return n < static_cast<uint64_t>(SSIZE_MAX) ? n : static_cast<uint64_t>(SSIZE_MAX);
}

}  // namespace

bool LocalFileDescriptionFSItem::mayBlock(int32_t type) {
  return type != 1 && type != 2 && type != 4;
}

bool LocalFileDescriptionFSItem::ready(short events, uint32_t timeoutMs) const {
  if (!mayBlock(type_)) return true;
  pollfd p{fd_, events, 0};
  // A time-out beyond INT_MAX milliseconds is as good as for ever.
  int timeout = timeoutMs == kForever || timeoutMs > INT_MAX ? -1 : static_cast<int>(timeoutMs);
  int n;
  do {
    n = ::poll(&p, 1, timeout);
  } while (n < 0 && errno == EINTR);
  // Errors and hang-ups count as ready: the host call that follows reports them.
  return n != 0;
}

namespace {

// What is left of a call's time-out; kForever stays.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;
  explicit Deadline(uint32_t timeoutMs)
      : forever_(timeoutMs == kForever),
        end_(Clock::now() + std::chrono::milliseconds(forever_ ? 0 : timeoutMs)) {}
  uint32_t left() const {
    if (forever_) return kForever;
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(end_ - Clock::now());
    return ms.count() > 0 ? static_cast<uint32_t>(ms.count()) : 0;
  }
  bool passed() const { return !forever_ && left() == 0; }

 private:
  const bool forever_;
  const Clock::time_point end_;
};

// The host call failed for a reason of its own (not "would block" or a signal).
bool failed(ssize_t n) { return n < 0 && errno != EAGAIN && errno != EINTR; }

// A call that moved nothing within its time-out.
uint64_t timedOut() {
  Error::set(EAGAIN);
  return 0;
}

}  // namespace

uint64_t LocalFileDescriptionFSItem::read(Interfaces::MemDesc buffer, uint64_t size,
                                          uint32_t timeoutMs) {
  if (buffer.kind != Interfaces::MemDesc::kDirect || !buffer.address) return 0;
  uint64_t n = clampSize(buffer, size);
  if (n == 0) return 0;
  // An item that may block has a non-blocking host descriptor: a read waits for data only
  // within its time-out, never in the host call. A read that may wait asks readiness first, so
  // a FIFO that no writer has opened yet is waited for rather than read as at its end; one
  // that may not wait reads at once, as the host's non-blocking read does. Nothing within the
  // time-out sets Error to EAGAIN; the end of the data leaves Error alone.
  Deadline deadline(timeoutMs);
  for (bool first = true;; first = false) {
    if ((timeoutMs != 0 || !first) && !ready(POLLIN, deadline.left())) return timedOut();
    ssize_t got = ::read(fd_, buffer.pointer(), n);
    if (got >= 0 || failed(got)) return moved(got);
    if (deadline.passed()) return timedOut();
  }
}

uint64_t LocalFileDescriptionFSItem::write(Interfaces::MemDesc buffer, uint64_t size,
                                           uint32_t timeoutMs) {
  if (buffer.kind != Interfaces::MemDesc::kDirect || !buffer.address) return 0;
  uint64_t n = clampSize(buffer, size);
  if (n == 0) return 0;
  if (!mayBlock(type_)) {
    ssize_t put;
    do {
      put = ::write(fd_, buffer.pointer(), n);
    } while (put < 0 && errno == EINTR);
    return moved(put);
  }
  // Whatever room the reader makes within the time-out is filled; what did not fit by then is
  // left to the caller, with the count of what went (none: Error is EAGAIN). The write is
  // tried before readiness is asked: the host may take a few bytes where it reports no room
  // (a FIFO that adds them to its last page).
  Deadline deadline(timeoutMs);
  const char* from = static_cast<const char*>(buffer.pointer());
  uint64_t done = 0;
  while (done < n) {
    ssize_t put = ::write(fd_, from + done, n - done);
    if (put > 0) {
      done += static_cast<uint64_t>(put);
    } else if (failed(put)) {
      if (done == 0) return moved(put);
      break;
    } else if (deadline.passed() || !ready(POLLOUT, deadline.left())) {
      break;
    }
  }
  return done > 0 ? done : timedOut();
}

uint64_t LocalFileDescriptionFSItem::readable() {
  int n = 0;
  if (::ioctl(fd_, FIONREAD, &n) != 0 || n < 0) return 0;
  return static_cast<uint64_t>(n);
}

uint64_t LocalFileDescriptionFSItem::seek(uint64_t position) {
  // Positions beyond the host's signed offsets are refused rather than wrapped to negative.
  if (position > static_cast<uint64_t>(INT64_MAX)) {
    Error::set(EINVAL);
    return LocalFile::kFailed;
  }
  off_t at = ::lseek(fd_, static_cast<off_t>(position), SEEK_SET);
  if (at < 0) {
    Error::set(static_cast<uint32_t>(errno));
    return LocalFile::kFailed;
  }
  return static_cast<uint64_t>(at);
}

uint64_t LocalFileDescriptionFSItem::position() {
  off_t at = ::lseek(fd_, 0, SEEK_CUR);
  if (at < 0) {
    Error::set(static_cast<uint32_t>(errno));
    return LocalFile::kFailed;
  }
  return static_cast<uint64_t>(at);
}

uint64_t LocalFileDescriptionFSItem::size() {
  struct stat st;
  if (::fstat(fd_, &st) != 0) {
    Error::set(static_cast<uint32_t>(errno));
    return LocalFile::kFailed;
  }
  return static_cast<uint64_t>(st.st_size);
}

uint64_t LocalFileDescriptionFSItem::resize(uint64_t size) {
  if (size > static_cast<uint64_t>(INT64_MAX)) {
    Error::set(EINVAL);
    return LocalFile::kFailed;
  }
  int rc;
  do {
    rc = ::ftruncate(fd_, static_cast<off_t>(size));
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    Error::set(static_cast<uint32_t>(errno));
    return LocalFile::kFailed;
  }
  return size;
}
