// Moving bytes and the offset of an opened host item. Every call works on the one host open
// file description, so the offset it moves is the one every holder of the item shares: reads
// and writes use read(2) and write(2), never the positioned calls.
//
// A read or write is one host call straight between the caller's memory and the file, so a
// reader that hands in the memory of its reply gets the bytes there without a copy.
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "platform/error.h"
#include "platform/local_file.h"
#include "platform/sync.h"

namespace {

// Regular files, directories and block devices answer at once; anything else may wait.
bool mayBlock(int32_t type) { return type != 1 && type != 2 && type != 4; }

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

uint64_t LocalFileDescriptionFSItem::read(Interfaces::MemDesc buffer, uint64_t size,
                                          uint32_t timeoutMs) {
  if (buffer.kind != Interfaces::MemDesc::kDirect || !buffer.address) return 0;
  uint64_t n = clampSize(buffer, size);
  if (n == 0 || !ready(POLLIN, timeoutMs)) return 0;
  ssize_t got;
  do {
    got = ::read(fd_, buffer.pointer(), n);
  } while (got < 0 && errno == EINTR);
  return moved(got);
}

uint64_t LocalFileDescriptionFSItem::write(Interfaces::MemDesc buffer, uint64_t size,
                                           uint32_t timeoutMs) {
  if (buffer.kind != Interfaces::MemDesc::kDirect || !buffer.address) return 0;
  uint64_t n = clampSize(buffer, size);
  if (n == 0 || !ready(POLLOUT, timeoutMs)) return 0;
  ssize_t put;
  do {
    put = ::write(fd_, buffer.pointer(), n);
  } while (put < 0 && errno == EINTR);
  return moved(put);
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
