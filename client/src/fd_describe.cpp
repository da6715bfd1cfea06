// The description of a file-system item: the path it was opened by, its type and its open
// flags come from the item service and never change, so they are asked once per description;
// the size comes from the resizable service, when the item has one, on every call.
#include <errno.h>

#include <cstring>

#include "descriptors.h"
#include "posix/fs_item.h"
#include "posix_client.h"

namespace pxc {

namespace {

// Parses the item service's answer: string path, i32 type, u32 open flags.
bool parseItem(const std::vector<uint8_t>& data, ItemInfo* out) {
  size_t at = 0;
  int32_t length = 0;
  if (!takeI32(data, &at, &length) || length < 0 ||
      static_cast<size_t>(length) > data.size() - at) {
    return false;
  }
  out->path.assign(reinterpret_cast<const char*>(data.data() + at), static_cast<size_t>(length));
  at += static_cast<size_t>(length);
  int32_t type = 0;
  int32_t flags = 0;
  if (!takeI32(data, &at, &type) || !takeI32(data, &at, &flags)) return false;
  out->type = type;
  out->openFlags = static_cast<uint32_t>(flags);
  return true;
}

}  // namespace

int Description::describe(ItemInfo* out) {
  if (!offers(PX_IFACE_FS_ITEM)) return EINVAL;
  std::lock_guard<std::mutex> lock(item_.mutex);
  if (!described_) {
    FrameWriter req(PX_ITEM_CMD_DESCRIBE);
    Reply reply;
    int err = call(item_, PX_IFACE_FS_ITEM, req, &reply, nullptr);
    if (err != 0) return err;
    // 0: the description has gone (its last descriptor was closed meanwhile).
    if (reply.code == PX_RESULT_FAILED) return EBADF;
    if (reply.code != PX_ITEM_RESULT_OK || !parseItem(reply.data, &info_)) return EPROTO;
    described_ = true;
    type_.store(info_.type, std::memory_order_relaxed);
  }
  *out = info_;
  return 0;
}

}  // namespace pxc

extern "C" {

int px_describe(int fd, px_item_info* out) {
  if (out == nullptr) return pxc::fail(EFAULT);
  std::shared_ptr<pxc::Description> d;
  int err = pxc::lookupFd(fd, &d);
  if (err != 0) return pxc::fail(err);
  pxc::ItemInfo info;
  err = d->describe(&info);
  if (err != 0) return pxc::fail(err);
  if (info.path.size() >= sizeof out->path) return pxc::fail(ENAMETOOLONG);
  std::memcpy(out->path, info.path.c_str(), info.path.size() + 1);
  out->type = info.type;
  out->open_flags = info.openFlags;
  out->has_size = 0;
  out->size = 0;
  if (d->offers(PX_IFACE_RESIZABLE)) {
    pxc::FrameWriter req(PX_RESIZE_CMD_SIZE);
    uint64_t size = 0;
    err = pxc::askValue(*d, PX_IFACE_RESIZABLE, req, &size);
    if (err != 0) return pxc::fail(err);
    out->has_size = 1;
    out->size = static_cast<int64_t>(size);
  }
  return 0;
}

}  // extern "C"
