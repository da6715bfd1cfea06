#include "fd/file_description_server.h"

#include "common/close_queue.h"
#include "fd/description_holders.h"

FileDescriptionServer::~FileDescriptionServer() {
  if (multiplex_) closeLater(std::move(multiplex_));
  node_.reset();
}

uint64_t FileDescriptionServer::addForHolders(const Ref<Interfaces::Service>& service,
                                              Ref<ConMan> conMan) {
  Ref<HolderGate> gate = HolderGate::create(this, std::move(conMan));
  return service && gate && multiplex_ ? multiplex_->add(service, gate) : 0;
}
