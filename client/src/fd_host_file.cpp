// Regular files at the host's speed: the item service hands over the server's own host open
// file (one request, once per description and process), and from then on reads, writes,
// seeks and resizes are the host's calls on it. The host keeps one offset and one set of
// flags (append, read-only) for that open file, so the server's stream, seek and resize
// services, every descriptor of the description and every child that inherited it go on
// seeing the same offset. Other items (directories, devices, host FIFOs) have none: their
// waits and time-outs stay with the services.
#include <errno.h>
#include <unistd.h>

#include "descriptors.h"
#include "posix/fs_item.h"
#include "posix_client.h"

namespace pxc {

int Description::hostFile() {
  int known = hostFile_.load(std::memory_order_acquire);
  if (known != kHostFileUnasked) return known;
  if (!offers(PX_IFACE_FS_ITEM) || type() != PX_FD_KIND_FILE) return -1;
  std::lock_guard<std::mutex> lock(item_.mutex);
  known = hostFile_.load(std::memory_order_relaxed);
  if (known != kHostFileUnasked) return known;
  FrameWriter req(PX_ITEM_CMD_HOST_FILE);
  Reply reply;
  int file = -1;
  if (call(item_, PX_IFACE_FS_ITEM, req, &reply, nullptr, &file) != 0) return -1;  // asked again
  if (reply.code != PX_RESULT_DONE && file >= 0) {
    close(file);
    file = -1;
  }
  hostFile_.store(file, std::memory_order_release);
  return file;
}

void Description::takeHostFile(int file) {
  std::lock_guard<std::mutex> lock(item_.mutex);
  if (hostFile_.load(std::memory_order_relaxed) != kHostFileUnasked) {
    close(file);
    return;
  }
  type_.store(PX_FD_KIND_FILE, std::memory_order_relaxed);
  hostFile_.store(file, std::memory_order_release);
}

int64_t hostRead(int file, void* buf, size_t n) {
  for (;;) {
    ssize_t got = ::read(file, buf, n);
    if (got >= 0) return got;
    if (errno != EINTR) return -errno;
  }
}

int64_t hostWrite(int file, const void* buf, size_t n) {
  const uint8_t* bytes = static_cast<const uint8_t*>(buf);
  size_t done = 0;
  while (done < n) {
    ssize_t put = ::write(file, bytes + done, n - done);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return done > 0 ? static_cast<int64_t>(done) : (put < 0 ? -errno : -EIO);
    done += static_cast<size_t>(put);
  }
  return static_cast<int64_t>(done);
}

}  // namespace pxc
