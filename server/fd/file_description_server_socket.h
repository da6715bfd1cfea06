// The open file description of a host socket, as descriptor tables hold it. It serves one
// service of its own over a multiplex ("SocketDescr"): the socket service, which answers 0 to
// every request. The socket gives a descriptor its type and a place in tables; its data path
// is the platform's, not this server's.
#pragma once

#include "fd/file_description_server.h"
#include "platform/local_file.h"

class FileDescriptionServerSocket : public Object, public virtual FileDescriptionServer {
 public:
  // A new socket description. Null when the multiplex or the node could not be made. A socket
  // the host refused is kept as missing: the description still lists its service.
  static Ref<FileDescriptionServerSocket> create();

  // The socket's own type code, which is the socket type even when the host gave no socket.
  int32_t type() const override {
    return item_ ? item_->descriptionType() : LocalFileDescriptionNetSocket::kType;
  }
  const Ref<LocalFileDescriptionNetSocket>& item() const { return item_; }

  ~FileDescriptionServerSocket() override;

 private:
  explicit FileDescriptionServerSocket(Ref<LocalFileDescriptionNetSocket> item)
      : item_(std::move(item)) {}

  Ref<LocalFileDescriptionNetSocket> item_;  // set in the constructor, released first
};
