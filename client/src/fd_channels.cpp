// Pipes of the process service (command 11): two pipe ends that belong to no descriptor
// table. Each end lives while a connection to it is open, so a handle connects to its end at
// once and the end closes itself when the handle is closed or the process dies.
#include <errno.h>

#include <new>

#include "descriptors.h"
#include "posix_client.h"

struct px_channel {
  explicit px_channel(pxc::NodeRecord node) : desc(PX_FD_KIND_FIFO, std::move(node)) {}
  pxc::Description desc;
};

extern "C" {

int px_pipe_channels(px_channel* ends[2]) {
  if (ends == nullptr) return pxc::fail(EFAULT);
  pxc::FrameWriter req(PX_CMD_CREATE_PIPE);
  pxc::Reply reply;
  int err = pxc::transact(req, &reply);
  if (err != 0) return pxc::fail(err);
  if (reply.code == PX_RESULT_FAILED || reply.code == PX_RESULT_LIMIT) return pxc::fail(EMFILE);
  if (reply.code != PX_RESULT_DONE) return pxc::fail(EPROTO);
  size_t at = 0;
  pxc::NodeRecord nodes[2];
  if (!pxc::parseNode(reply.data, &at, &nodes[0]) || !pxc::parseNode(reply.data, &at, &nodes[1])) {
    return pxc::fail(EPROTO);
  }
  px_channel* made[2] = {nullptr, nullptr};
  for (int i = 0; i < 2 && err == 0; ++i) {
    made[i] = new (std::nothrow) px_channel(std::move(nodes[i]));
    err = made[i] == nullptr ? ENOMEM : made[i]->desc.connect();
  }
  if (err != 0) {
    // An end never connected to stays in the server until it goes away: nothing else can
    // reach it, and closing needs a connection.
    delete made[0];
    delete made[1];
    return pxc::fail(err);
  }
  ends[0] = made[0];
  ends[1] = made[1];
  return 0;
}

ssize_t px_channel_read(px_channel* ch, void* buf, size_t n) {
  if (ch == nullptr) return pxc::fail(EBADF);
  if (buf == nullptr && n > 0) return pxc::fail(EFAULT);
  int64_t got = ch->desc.read(buf, n, ch->desc.nonblock.load(std::memory_order_relaxed));
  return got < 0 ? pxc::fail(static_cast<int>(-got)) : static_cast<ssize_t>(got);
}

ssize_t px_channel_write(px_channel* ch, const void* buf, size_t n) {
  if (ch == nullptr) return pxc::fail(EBADF);
  if (buf == nullptr && n > 0) return pxc::fail(EFAULT);
  int64_t put = ch->desc.write(buf, n, ch->desc.nonblock.load(std::memory_order_relaxed));
  return put < 0 ? pxc::fail(static_cast<int>(-put)) : static_cast<ssize_t>(put);
}

int px_channel_set_nonblock(px_channel* ch, int on) {
  if (ch == nullptr) return pxc::fail(EBADF);
  ch->desc.nonblock.store(on != 0, std::memory_order_relaxed);
  return 0;
}

void px_channel_close(px_channel* ch) { delete ch; }

}  // extern "C"
