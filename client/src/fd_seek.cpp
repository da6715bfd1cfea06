// The offset and the size of a file-system item. The server keeps the offset (every
// descriptor of the description, in every process, shares it), so each call asks it: the
// seekable service knows only the current position and an absolute seek, and the resizable
// service the size, so relative seeks are built from those here.
#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <posix/wire_tables.h>

#include "descriptors.h"
#include "posix_client.h"

namespace pxc {

namespace {

// The size of the item behind `d` for SEEK_END: 0 or an errno value. The server tells the
// size only to writers (through the resizable service); for the others the item is looked at
// on the host under the path it was opened by.
int itemSize(Description& d, uint64_t* size) {
  if (d.offers(PX_IFACE_RESIZABLE)) {
    FrameWriter req(PX_RESIZE_CMD_SIZE);
    return askValue(d, PX_IFACE_RESIZABLE, req, size);
  }
  ItemInfo info;
  int err = d.describe(&info);
  if (err != 0) return err;
  struct stat st;
  if (stat(info.path.c_str(), &st) != 0) return errno;
  *size = static_cast<uint64_t>(st.st_size);
  return 0;
}

int64_t lseek(int fd, int64_t offset, int whence) {
  std::shared_ptr<Description> d;
  int err = lookupFd(fd, &d);
  if (err != 0) return fail(err);
  if (whence != SEEK_SET && whence != SEEK_CUR && whence != SEEK_END) return fail(EINVAL);
  if (!d->offers(PX_IFACE_SEEKABLE)) return fail(ESPIPE);
  if (int file = d->hostFile(); file >= 0) {
    off_t at = ::lseek(file, offset, whence);
    return at < 0 ? fail(errno) : at;
  }
  uint64_t base = 0;
  if (whence == SEEK_CUR) {
    FrameWriter req(PX_SEEK_CMD_POSITION);
    err = askValue(*d, PX_IFACE_SEEKABLE, req, &base);
    if (err != 0) return fail(err);
    if (offset == 0) return static_cast<int64_t>(base);  // only asked where it is
  } else if (whence == SEEK_END) {
    err = itemSize(*d, &base);
    if (err != 0) return fail(err);
  }
  if (base > static_cast<uint64_t>(INT64_MAX)) return fail(EOVERFLOW);
  int64_t target = 0;
  if (__builtin_add_overflow(static_cast<int64_t>(base), offset, &target)) {
    return fail(offset < 0 ? EINVAL : EOVERFLOW);
  }
  if (target < 0) return fail(EINVAL);
  FrameWriter req(PX_SEEK_CMD_SEEK);
  px::putRequest<PX_SEEK_CMD_SEEK>(req, static_cast<uint64_t>(target));
  uint64_t now = 0;
  err = askValue(*d, PX_IFACE_SEEKABLE, req, &now);
  if (err != 0) return fail(err);
  // All ones: the host refused the position; anything else beyond 63 bits is nonsense.
  if (now == PX_ITEM_FAILED) return fail(EINVAL);
  if (now > static_cast<uint64_t>(INT64_MAX)) return fail(EPROTO);
  return static_cast<int64_t>(now);
}

}  // namespace

int askValue(Description& d, uint64_t iface, FrameWriter& req, uint64_t* value) {
  Reply reply;
  int err = d.ask(iface, req, &reply);
  if (err != 0) return err;
  if (reply.code == PX_RESULT_FAILED) return EBADF;  // the description has gone
  if (reply.code != PX_ITEM_RESULT_OK || !reply.dataU64(0, value)) return EPROTO;
  return 0;
}

}  // namespace pxc

extern "C" {

int64_t px_lseek(int fd, int64_t offset, int whence) { return pxc::lseek(fd, offset, whence); }

int px_ftruncate(int fd, int64_t length) {
  std::shared_ptr<pxc::Description> d;
  int err = pxc::lookupFd(fd, &d);
  if (err != 0) return pxc::fail(err);
  if (length < 0 || !d->offers(PX_IFACE_RESIZABLE)) return pxc::fail(EINVAL);
  if (int file = d->hostFile(); file >= 0) return ::ftruncate(file, length) == 0 ? 0 : pxc::fail(errno);
  pxc::FrameWriter req(PX_RESIZE_CMD_RESIZE);
  px::putRequest<PX_RESIZE_CMD_RESIZE>(req, static_cast<uint64_t>(length));
  uint64_t size = 0;
  err = pxc::askValue(*d, PX_IFACE_RESIZABLE, req, &size);
  if (err != 0) return pxc::fail(err);
  return size == PX_ITEM_FAILED ? pxc::fail(EIO) : 0;
}

}  // extern "C"
