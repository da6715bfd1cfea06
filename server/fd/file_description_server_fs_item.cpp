#include "fd/file_description_server_fs_item.h"

#include <posix/nodes.h>

#include "adapters/c_stream_service.h"
#include "adapters/posix_resizable_service.h"
#include "adapters/posix_seekable_service.h"
#include "fd/posix_fs_item_service.h"
#include "platform/nodes.h"

Ref<FileDescriptionServerFSItem> FileDescriptionServerFSItem::create(
    Ref<LocalFileDescriptionFSItem> item) {
  if (!item) return nullptr;
  Ref<FileDescriptionServerFSItem> server = new FileDescriptionServerFSItem(std::move(item));
  // A half-built server is dropped here; its destructor queues whatever multiplex it made.
  server->multiplex_ = Libraries::Service::Multiplex::create(String::create("FSItemDescr"));
  if (!server->multiplex_) return nullptr;
  server->node_ = DeviceNode::create();
  if (!server->node_) return nullptr;
  server->publish();
  return server;
}

template <class S>
void FileDescriptionServerFSItem::list(const Ref<S>& service, uint64_t interfaceType,
                                       uint64_t access) {
  if (!service) return;
  uint64_t id = addForHolders(service, service);
  if (id != 0) node_->add(interfaceType, multiplex_->channelId(), id, 0, access, 0);
}

void FileDescriptionServerFSItem::publish() {
  if (!stream_) return;
  Ref<Interfaces::Stream> stream = stream_;
  list(Services::Nodes::Resolvers::Stream::create(stream, nullptr, kResolverValue), PX_IFACE_STREAM,
       PX_ACCESS_READ | PX_ACCESS_WRITE);
  list(CStreamService::create(stream), PX_IFACE_STREAM_ADAPTER, PX_ACCESS_SERVICE);
  if (Ref<Interfaces::Seekable> seek = item_->seekable())
    list(PosixSeekableService::create(seek), PX_IFACE_SEEKABLE, PX_ACCESS_SERVICE);
  if (Ref<Interfaces::Resizable> resize = item_->resizable())
    list(PosixResizableService::create(resize), PX_IFACE_RESIZABLE, PX_ACCESS_SERVICE);
  list(PosixFSItemService::create(this), PX_IFACE_FS_ITEM, PX_ACCESS_SERVICE);
}

FileDescriptionServerFSItem::~FileDescriptionServerFSItem() {
  // The item goes first (and with it the host file, but for a call still inside it); the base
  // then queues the multiplex and lets go of the node.
  if (stream_) stream_->dropItem();
  item_.reset();
}
