// The descriptor calls: each asks the descriptor service and mirrors the answer in the local
// view within one session, so other threads see the server's table and the view change
// together. Reads and writes only look the description up and then talk to its services.
#include <errno.h>

#include <posix/wire_tables.h>

#include "descriptors.h"
#include "posix_client.h"

namespace pxc {

namespace {

// The i32 the descriptor service answers first; false when the reply is too short.
bool replyFd(const Reply& reply, int* fd) {
  size_t at = 0;
  int32_t v = 0;
  if (!takeI32(reply.data, &at, &v) || v < 0) return false;
  *fd = v;
  return true;
}

int dup(int fd, int target, bool replace) {
  FdSession session;
  if (session.error() != 0) return fail(session.error());
  FrameWriter req(PX_FD_CMD_DUP);
  px::putRequest<PX_FD_CMD_DUP>(req, int32_t{fd}, int32_t{target}, uint8_t{replace});
  Reply reply;
  int err = session.request(req, &reply);
  if (err != 0) return fail(err);
  bool known = false;
  std::shared_ptr<Description> d = session.get(fd, &known);
  if (reply.code != PX_RESULT_DONE) {
    if (reply.code == PX_RESULT_LIMIT) return fail(EMFILE);  // no number free
    return fail(reply.code == PX_RESULT_FAILED || reply.code == PX_FD_RESULT_BAD_FD ? EBADF
                                                                                   : EPROTO);
  }
  int got = -1;
  if (!replyFd(reply, &got)) return fail(EPROTO);
  session.set(got, std::move(d));
  return got;
}

// A read's or write's answer for the caller: a description whose services closed under the call
// (another thread closed or replaced its last number meanwhile) has gone, EBADF; only a
// server that went away is ECONNRESET.
ssize_t transferResult(int64_t result, int fd, const Description* d) {
  if (result >= 0) return static_cast<ssize_t>(result);
  int err = static_cast<int>(-result);
  if (err == ECONNRESET && !stillNamed(fd, d)) err = EBADF;
  return fail(err);
}

}  // namespace

}  // namespace pxc

extern "C" {

int px_pipe(int fds[2]) {
  if (fds == nullptr) return pxc::fail(EFAULT);
  pxc::FdSession session;
  if (session.error() != 0) return pxc::fail(session.error());
  pxc::FrameWriter req(PX_FD_CMD_CREATE_PIPE);
  pxc::Reply reply;
  int err = session.request(req, &reply);
  if (err != 0) return pxc::fail(err);
  if (reply.code == PX_RESULT_FAILED || reply.code == PX_RESULT_LIMIT) return pxc::fail(EMFILE);
  if (reply.code != PX_RESULT_DONE) return pxc::fail(EPROTO);
  size_t at = 0;
  int32_t ends[2] = {-1, -1};
  pxc::NodeRecord nodes[2];
  for (int i = 0; i < 2; ++i) {
    if (!pxc::takeI32(reply.data, &at, &ends[i]) || ends[i] < 0 ||
        !pxc::parseNode(reply.data, &at, &nodes[i])) {
      return pxc::fail(EPROTO);
    }
  }
  for (int i = 0; i < 2; ++i) {
    session.set(ends[i], session.adopt(PX_FD_KIND_FIFO, std::move(nodes[i])));
    fds[i] = ends[i];
  }
  return 0;
}

int px_dup(int fd) { return px_dupfd(fd, 0); }

int px_dupfd(int fd, int min) {
  if (fd < 0) return pxc::fail(EBADF);
  if (min < 0 || min >= PX_FD_LIMIT) return pxc::fail(EINVAL);
  return pxc::dup(fd, min, false);
}

int px_dup2(int fd, int newfd) {
  if (fd < 0 || newfd < 0 || newfd >= PX_FD_LIMIT) return pxc::fail(EBADF);
  return pxc::dup(fd, newfd, true);
}

int px_close(int fd) {
  if (fd < 0) return pxc::fail(EBADF);
  pxc::FdSession session;
  if (session.error() != 0) return pxc::fail(session.error());
  pxc::FrameWriter req(PX_FD_CMD_CLOSE);
  px::putRequest<PX_FD_CMD_CLOSE>(req, int32_t{fd});
  // The view knows the number, so the server's table holds it too and closes it without fail:
  // the close of a pipe end, a regular file or a socket goes out and its reply is taken later,
  // before anything that could tell (a read of the pipe, a spawn) reaches the server. Any other
  // item (a host FIFO, a device) waits for the reply: another process's open of a FIFO must
  // find this reader or writer gone once px_close has returned.
  bool known = false;
  std::shared_ptr<pxc::Description> d = session.get(fd, &known);
  const int32_t type = d ? d->knownType() : PX_FD_KIND_RESERVED;
  const bool unseen = type == PX_FD_KIND_FIFO || type == PX_FD_KIND_FILE ||
                      type == PX_FD_KIND_SOCKET || type == PX_FD_KIND_RESERVED;
  d.reset();
  if (known && unseen && session.post(req)) {
    session.erase(fd);
    return 0;
  }
  pxc::Reply reply;
  int err = session.request(req, &reply);
  if (err != 0) return pxc::fail(err);
  // Whatever the server says, the number is free now.
  session.erase(fd);
  return reply.code == PX_RESULT_DONE ? 0 : pxc::fail(EBADF);
}

ssize_t px_read(int fd, void* buf, size_t n) {
  if (buf == nullptr && n > 0) return pxc::fail(EFAULT);
  std::shared_ptr<pxc::Description> d;
  int err = pxc::lookupFd(fd, &d);
  if (err != 0) return pxc::fail(err);
  return pxc::transferResult(d->read(buf, n, d->nonblock.load(std::memory_order_relaxed)), fd,
                             d.get());
}

ssize_t px_write(int fd, const void* buf, size_t n) {
  if (buf == nullptr && n > 0) return pxc::fail(EFAULT);
  std::shared_ptr<pxc::Description> d;
  int err = pxc::lookupFd(fd, &d);
  if (err != 0) return pxc::fail(err);
  return pxc::transferResult(d->write(buf, n, d->nonblock.load(std::memory_order_relaxed)), fd,
                             d.get());
}

int px_set_nonblock(int fd, int on) {
  std::shared_ptr<pxc::Description> d;
  int err = pxc::lookupFd(fd, &d);
  if (err != 0) return pxc::fail(err);
  d->nonblock.store(on != 0, std::memory_order_relaxed);
  return 0;
}

int px_reserve_fd(void) {
  pxc::FdSession session;
  if (session.error() != 0) return pxc::fail(session.error());
  pxc::FrameWriter req(PX_FD_CMD_RESERVE);
  pxc::Reply reply;
  int err = session.request(req, &reply);
  if (err != 0) return pxc::fail(err);
  int fd = -1;
  if (reply.code == PX_RESULT_FAILED || reply.code == PX_RESULT_LIMIT) return pxc::fail(EMFILE);
  if (reply.code != PX_FD_RESULT_NO_NODE || !pxc::replyFd(reply, &fd)) return pxc::fail(EPROTO);
  session.set(fd, nullptr);
  return fd;
}

int px_fd_list(px_fd_info* out, int max) {
  pxc::FdSession session;
  if (session.error() != 0) return pxc::fail(session.error());
  int count = 0;
  for (const auto& [fd, d] : session.all()) {
    if (out != nullptr && count < max) {
      out[count].fd = fd;
      out[count].kind = d ? d->type() : PX_FD_KIND_RESERVED;
    }
    ++count;
  }
  return count;
}

}  // extern "C"
