// The descriptor reserve: spare descriptors (/dev/null, close-on-exec) that the accept paths of
// every channel and multiplex release when the process has run out, so that a process with few
// links can still connect while others hold every descriptor. An accept from the reserve
// releases three spares: one for the link, two for reading its peer (a pidfd and a /proc file).
// A link that is kept uses one spare for good, until descriptors come free and refill() takes
// it back.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <vector>

#include "chn_peer.h"
#include "file/host_fd.h"

namespace {

constexpr size_t kSparesPerAccept = 3;

struct Reserve {
  std::mutex mutex;
  size_t wanted = 0;       // guarded by mutex
  std::vector<int> spare;  // guarded by mutex
};

Reserve& reserve() {
  static Reserve* const made = new Reserve();  // never destroyed: accepts may run at exit
  return *made;
}

void refillLocked(Reserve& r) {
  while (r.spare.size() < r.wanted) {
    int fd = HostFd::opened(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (fd < 0) return;
    r.spare.push_back(fd);
  }
}

// Closes up to kSparesPerAccept spares; false when there were none.
bool release() {
  Reserve& r = reserve();
  std::lock_guard lock(r.mutex);
  if (r.spare.empty()) return false;
  for (size_t i = 0; i < kSparesPerAccept && !r.spare.empty(); ++i) {
    HostFd::close(r.spare.back());
    r.spare.pop_back();
  }
  return true;
}

}  // namespace

namespace DescriptorReserve {

void keep(size_t count) {
  Reserve& r = reserve();
  std::lock_guard lock(r.mutex);
  r.wanted = count;
  refillLocked(r);
}

void refill() {
  Reserve& r = reserve();
  std::lock_guard lock(r.mutex);
  refillLocked(r);
}

}  // namespace DescriptorReserve

int acceptLink(int listenFd, bool* fromReserve) {
  *fromReserve = false;
  int fd = HostFd::opened(::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (fd >= 0 || !shortOfDescriptors(errno) || !release()) return fd;
  *fromReserve = true;
  fd = HostFd::opened(::accept4(listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (fd < 0) {
    int saved = errno;
    DescriptorReserve::refill();  // nothing was taken for a link
    errno = saved;
  }
  return fd;
}
