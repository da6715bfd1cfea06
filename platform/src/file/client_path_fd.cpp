// Opening a client's descriptor through /proc/<pid>/fd, with the directory kept per thread.
#include "file/client_path_fd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "file/host_fd.h"

namespace {

// The /proc/<n>/fd directory of the process whose descriptor this thread opened last: a start
// names three of its starter's, and the next start on the same thread is most often the same
// starter's. While process n lives, nobody else has its pid and the directory is its own;
// once it has ended, a look-up in the directory finds nothing and the path is walked again.
struct DescriptorDir {
  uint64_t owner = 0;
  int fd = -1;
  ~DescriptorDir() { HostFd::close(fd); }
  bool open(uint64_t pid) {
    HostFd::close(fd);
    char name[48];
    std::snprintf(name, sizeof name, "/proc/%llu/fd", static_cast<unsigned long long>(pid));
    do {
      fd = HostFd::opened(::open(name, O_PATH | O_DIRECTORY | O_CLOEXEC));
    } while (fd < 0 && errno == EINTR);
    owner = fd >= 0 ? pid : 0;
    return fd >= 0;
  }
};
thread_local DescriptorDir t_descriptorDir;

}  // namespace

int ClientPath::openDescriptor(uint64_t owner, const char* name, int flags, mode_t mode) {
  DescriptorDir& dir = t_descriptorDir;
  bool fresh = false;
  if (dir.owner != owner || dir.fd < 0) {
    if (!dir.open(owner)) return -1;
    fresh = true;
  }
  for (;;) {
    int fd;
    do {
      fd = ::openat(dir.fd, name, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    // A directory kept from before may be that of an ended process whose pid is now another's.
    if (fd >= 0 || fresh || errno != ENOENT) return fd;
    if (!dir.open(owner)) return -1;
    fresh = true;
  }
}

