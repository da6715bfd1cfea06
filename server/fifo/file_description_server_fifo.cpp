#include "fifo/file_description_server_fifo.h"

#include "common/close_queue.h"
#include "fifo/fifo_end_node.h"
#include "fifo/fifo_log.h"

using posix::fifoLog;

FileDescriptionServerFIFO::FileDescriptionServerFIFO(const Ref<PosixFifoBase>& end,
                                                     Ref<String> name, uint64_t access)
    : fifoEnd_(end) {
  multiplex_ = Libraries::Service::Multiplex::create(std::move(name));
  if (multiplex_) node_ = serveFifoEnd(multiplex_, fifoEnd_, access, nullptr, this);
}

Ref<FileDescriptionServerFIFO> FileDescriptionServerFIFO::create(const Ref<PosixFifoBase>& end,
                                                                 Ref<String> name,
                                                                 uint64_t access) {
  if (!end || !name) return nullptr;
  Ref<FileDescriptionServerFIFO> server = new FileDescriptionServerFIFO(end, name, access);
  if (!server->multiplex_ || !server->node_) {
    POSIX_LOG(fifoLog.handle, 3, "Could not serve FIFO end " << name->c_str());
    return nullptr;  // the half-built server closes its end and queues its multiplex
  }
  return server;
}

FileDescriptionServerFIFO::~FileDescriptionServerFIFO() {
  if (fifoEnd_) fifoEnd_->closeEnd();
  if (multiplex_) closeLater(std::move(multiplex_));
  fifoEnd_.reset();
}
