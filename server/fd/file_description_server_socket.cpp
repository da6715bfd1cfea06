#include "fd/file_description_server_socket.h"

#include <posix/nodes.h>

#include "fd/posix_socket_service.h"

Ref<FileDescriptionServerSocket> FileDescriptionServerSocket::create() {
  Ref<FileDescriptionServerSocket> server =
      new FileDescriptionServerSocket(LocalFileDescriptionNetSocket::create());
  // A half-built server is dropped here; its destructor queues whatever multiplex it made.
  server->multiplex_ = Libraries::Service::Multiplex::create(String::create("SocketDescr"));
  if (!server->multiplex_) return nullptr;
  server->node_ = DeviceNode::create();
  if (!server->node_) return nullptr;
  Ref<PosixSocketService> service = PosixSocketService::create(server.get());
  uint64_t id = server->addForHolders(service, service);
  if (id != 0)
    server->node_->add(PX_IFACE_SOCKET, server->multiplex_->channelId(), id, 0, PX_ACCESS_SERVICE, 0);
  return server;
}

FileDescriptionServerSocket::~FileDescriptionServerSocket() {
  // The socket goes first; the base then queues the multiplex and lets go of the node.
  item_.reset();
}
