// A host TCP/IPv4 socket as a local file description. Nothing here moves data: the socket
// gives a descriptor its type and a place in descriptor tables, and closes with its last holder.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/error.h"
#include "platform/local_file.h"
#include "file/host_fd.h"

Ref<LocalFileDescriptionNetSocket> LocalFileDescriptionNetSocket::create() {
  int fd = HostFd::opened(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd < 0) {
    Error::set(static_cast<uint32_t>(errno));
    return nullptr;
  }
  return new LocalFileDescriptionNetSocket(fd);
}

LocalFileDescriptionNetSocket::~LocalFileDescriptionNetSocket() { HostFd::close(fd_); }
