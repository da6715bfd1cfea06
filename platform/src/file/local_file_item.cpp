// Opening a host file-system item as a local file description: the host open file description
// is made once here, its type and abilities are settled from what the host says about it, and
// it stays open until the last holder of the item lets go.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/client_path.h"
#include "platform/error.h"
#include "platform/local_file.h"
#include "file/host_fd.h"

namespace {

int32_t typeOf(mode_t mode) {
  if (S_ISREG(mode)) return 1;
  if (S_ISDIR(mode)) return 2;
  if (S_ISCHR(mode)) return 3;
  if (S_ISBLK(mode)) return 4;
  if (S_ISSOCK(mode)) return 6;
  return 9;  // host FIFOs and symbolic links opened with O_PATH among others
}

}  // namespace

Ref<LocalFileDescriptionFSItem> LocalFileDescriptionFSItem::open(const Ref<String>& path,
                                                                 uint32_t openFlags,
                                                                 uint32_t openMode,
                                                                 uint64_t forPid) {
  if (!path || std::strlen(path->c_str()) != path->length()) {
    // A zero byte inside the path would make the host open a shorter path than was asked for.
    Error::set(EINVAL);
    return nullptr;
  }
  // The open itself never waits: a host FIFO without a peer, a device waiting for a line, or a
  // file on which someone holds a lease would otherwise hold the opening thread (and every
  // request queued behind it) for as long as they like. The path is read as the client reads
  // it (/proc/self is the client's).
  int fd;
  do {
    fd = HostFd::opened(ClientPath::open(AT_FDCWD, path->c_str(),
                                         static_cast<int>(openFlags) | O_NONBLOCK,
                                         static_cast<mode_t>(openMode), forPid));
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    Error::set(static_cast<uint32_t>(errno));
    return nullptr;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    Error::set(static_cast<uint32_t>(errno));
    HostFd::close(fd);
    return nullptr;
  }
  const int32_t type = typeOf(st.st_mode);
  // What may block (FIFOs, devices, sockets) stays non-blocking for good: reads and writes wait
  // for readiness themselves, within their time-out. Other items are made blocking again unless
  // that was asked for: a regular file's descriptor is handed to clients as it is.
  if (!(openFlags & O_NONBLOCK) && !mayBlock(type)) {
    int status = ::fcntl(fd, F_GETFL);
    if (status >= 0) ::fcntl(fd, F_SETFL, status & ~O_NONBLOCK);
  }
  // Asking for the current offset moves nothing and fails exactly where a seek cannot work
  // (pipes, sockets, FIFOs).
  const bool canSeek = ::lseek(fd, 0, SEEK_CUR) >= 0;
  const uint32_t access = openFlags & O_ACCMODE;
  const bool canResize = type == 1 && (access == O_WRONLY || access == O_RDWR);
  return new LocalFileDescriptionFSItem(fd, path, openFlags, type, canSeek, canResize);
}

Ref<Interfaces::Seekable> LocalFileDescriptionFSItem::seekable() {
  if (!canSeek_) return nullptr;
  return this;
}

Ref<Interfaces::Resizable> LocalFileDescriptionFSItem::resizable() {
  if (!canResize_) return nullptr;
  return this;
}

LocalFileDescriptionFSItem::~LocalFileDescriptionFSItem() { HostFd::close(fd_); }

bool LocalFileDescriptionFSItem::attachTo(const Ref<OutMsg>& out) const {
  if (!out || type_ != typeOf(S_IFREG) || out->attached_ >= 0) return false;
  out->attached_ = HostFd::opened(::fcntl(fd_, F_DUPFD_CLOEXEC, 3));
  return out->attached_ >= 0;
}
