// The table as the server serialises it, for tools (posixctl fds) and tests. It also brings
// the local view up to date, since it is the server's word on which numbers hold what.
#include <errno.h>

#include "descriptors.h"
#include "posix_client.h"

extern "C" {

int px_fd_table(px_fd_record* out, int max) {
  pxc::FdSession session;
  if (session.error() != 0) return pxc::fail(session.error());
  std::vector<pxc::TableRecord> records;
  int err = pxc::fetchTable(
      [&](pxc::FrameWriter& req, pxc::Reply* out) { return session.request(req, out); }, &records);
  if (err != 0) return pxc::fail(err);
  int count = 0;
  for (pxc::TableRecord& rec : records) {
    if (out != nullptr && count < max) {
      px_fd_record& r = out[count];
      r.fd = static_cast<int64_t>(rec.fd);
      r.type = rec.type;
      r.entry_count = static_cast<uint32_t>(rec.node.entries.size());
      for (size_t i = 0; i < rec.node.entries.size() && i < PX_FD_MAX_ENTRIES; ++i) {
        r.entries[i] = rec.node.entries[i];
      }
    }
    ++count;
  }
  return count;
}

const char* px_fd_kind_name(int kind) {
  switch (kind) {
    case PX_FD_KIND_RESERVED: return "reserved";
    case PX_FD_KIND_FILE: return "file";
    case PX_FD_KIND_DIRECTORY: return "directory";
    case PX_FD_KIND_CHAR_DEVICE: return "chardev";
    case PX_FD_KIND_BLOCK_DEVICE: return "blockdev";
    case PX_FD_KIND_FIFO: return "fifo";
    case PX_FD_KIND_SOCKET: return "socket";
    case PX_FD_KIND_OTHER: return "other";
    default: return "?";
  }
}

}  // extern "C"
