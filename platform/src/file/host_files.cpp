#include "platform/host_files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "host_fd.h"

namespace {

// Descriptors the platform opened and has not closed yet; may go below 0 for a moment while
// another thread closes what it counted.
std::atomic<int64_t> counted{0};
// What the process held besides those, measured once.
std::atomic<int64_t> baseline{0};
std::once_flag calibrated;

// Entries of /proc/self/fd, less the one the listing itself uses; -1 when it cannot be read.
int64_t listOpen() {
  DIR* dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int64_t count = 0;
  while (dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  ::closedir(dir);
  return count - 1;
}

void measure() {
  int64_t open = listOpen();
  // Without /proc, standard input, output and error are the usual start.
  baseline.store((open < 0 ? 3 : open) - counted.load(), std::memory_order_relaxed);
}

}  // namespace

namespace HostFd {

int opened(int fd) {
  if (fd >= 0) counted.fetch_add(1, std::memory_order_relaxed);
  return fd;
}

void close(int fd) {
  if (fd < 0) return;
  int saved = errno;
  ::close(fd);  // the number is gone even when close reports an error
  counted.fetch_sub(1, std::memory_order_relaxed);
  errno = saved;
}

}  // namespace HostFd

namespace HostFiles {

void calibrate() { std::call_once(calibrated, measure); }

void closeInherited() {
  DIR* dir = ::opendir("/proc/self/fd");
  if (dir == nullptr) return;
  std::vector<int> inherited;
  while (dirent* entry = ::readdir(dir)) {
    int fd = std::atoi(entry->d_name);
    if (fd <= 2 || fd == ::dirfd(dir)) continue;
    int flags = ::fcntl(fd, F_GETFD);
    if (flags >= 0 && !(flags & FD_CLOEXEC)) inherited.push_back(fd);
  }
  ::closedir(dir);
  for (int fd : inherited) ::close(fd);
}

uint64_t limit() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_cur == RLIM_INFINITY) return 1 << 20;
  return files.rlim_cur > 0 ? files.rlim_cur : 1;
}

uint64_t inUse() {
  calibrate();
  int64_t held = baseline.load(std::memory_order_relaxed) + counted.load(std::memory_order_relaxed);
  return held > 0 ? static_cast<uint64_t>(held) : 0;
}

uint64_t available() {
  uint64_t max = limit();
  uint64_t held = inUse();
  return held < max ? max - held : 0;
}

}  // namespace HostFiles
