// New descriptions of files and sockets: the descriptor service makes the description, takes
// the lowest free number for it and answers the number and the description's node.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <string>

#include <posix/wire_tables.h>

#include "descriptors.h"
#include "posix_client.h"

namespace pxc {

namespace {

// Enters the number and node of a successful reply in the view; answers the number, or -1
// with errno. A number given without a node (result 8) cannot be used: it is handed back.
int registerReply(FdSession& session, const Reply& reply, int32_t type, int hostFile = -1) {
  size_t at = 0;
  int32_t fd = -1;
  NodeRecord node;
  if (reply.code == PX_FD_RESULT_NO_NODE && takeI32(reply.data, &at, &fd) && fd >= 0) {
    FrameWriter giveBack(PX_FD_CMD_CLOSE);
    px::putRequest<PX_FD_CMD_CLOSE>(giveBack, fd);
    Reply ignored;
    session.request(giveBack, &ignored);
    return fail(EPROTO);
  }
  if (reply.code == PX_RESULT_FAILED || reply.code == PX_RESULT_LIMIT) return fail(EMFILE);
  if (reply.code != PX_RESULT_DONE || !takeI32(reply.data, &at, &fd) || fd < 0 ||
      !parseNode(reply.data, &at, &node)) {
    return fail(EPROTO);
  }
  auto description = std::make_shared<Description>(type, std::move(node));
  if (hostFile >= 0) description->takeHostFile(hostFile);
  session.set(fd, std::move(description));
  return fd;
}

int open(const char* path, int flags, unsigned mode) {
  if (path == nullptr) return fail(EFAULT);
  if (path[0] == '\0') return fail(ENOENT);
  // The server opens the item in its own working directory, not ours.
  std::string absolute = path;
  if (path[0] != '/') {
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return fail(errno);
    absolute = std::string(cwd) + "/" + path;
  }
  FdSession session;
  if (session.error() != 0) return fail(session.error());
  FrameWriter req(PX_FD_CMD_OPEN);
  // With the host file, a regular file's bytes never pass through the server.
  const px::Text text{absolute.data(), absolute.size()};
  px::putRequest<PX_FD_CMD_OPEN>(req, text, static_cast<uint32_t>(flags), uint32_t{mode},
                                 uint32_t{PX_FD_OPEN_HOST_FILE});
  if (!req.ok()) return fail(ENAMETOOLONG);
  Reply reply;
  int file = -1;
  int err = session.request(req, &reply, &file);
  if (file >= 0 && reply.code != PX_RESULT_DONE) {
    close(file);
    file = -1;
  }
  if (err != 0) return fail(err);
  if (reply.code == PX_FD_RESULT_OPEN_FAILED) {
    size_t at = 0;
    int32_t hostErr = 0;
    return fail(takeI32(reply.data, &at, &hostErr) && hostErr > 0 ? hostErr : EIO);
  }
  // A reply with the host file is a regular file's; any other tells no type, and the item
  // service is asked when someone wants it.
  int fd = registerReply(session, reply, file >= 0 ? PX_FD_KIND_FILE : Description::kTypeUnknown, file);
  if (fd < 0 && file >= 0) close(file);
  // O_NONBLOCK asked at the open makes the description's calls non-blocking, as px_set_nonblock.
  bool known = false;
  if (fd >= 0 && (flags & O_NONBLOCK) != 0) session.get(fd, &known)->nonblock.store(true);
  return fd;
}

}  // namespace

}  // namespace pxc

extern "C" {

int px_open(const char* path, int flags, unsigned mode) { return pxc::open(path, flags, mode); }

int px_socket(void) {
  pxc::FdSession session;
  if (session.error() != 0) return pxc::fail(session.error());
  pxc::FrameWriter req(PX_FD_CMD_CREATE_SOCKET);
  pxc::Reply reply;
  int err = session.request(req, &reply);
  if (err != 0) return pxc::fail(err);
  return pxc::registerReply(session, reply, PX_FD_KIND_SOCKET);
}

}  // extern "C"
