#include "fd/file_description_server.h"

#include "core/close_queue.h"

FileDescriptionServer::~FileDescriptionServer() {
  if (multiplex_) closeLater(std::move(multiplex_));
  node_.reset();
}
