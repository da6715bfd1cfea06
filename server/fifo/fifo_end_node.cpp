#include "fifo/fifo_end_node.h"

#include "fd/description_holders.h"
#include "fifo/posix_fifo_svc.h"
#include "platform/nodes.h"

Ref<DeviceNode> serveFifoEnd(const Ref<Libraries::Service::Multiplex>& multiplex,
                             const Ref<PosixFifoBase>& end, uint64_t access,
                             const Ref<AutocloseSvcMultiplex>& closer,
                             FileDescriptionServer* description) {
  if (!multiplex || !end) return nullptr;
  Ref<Services::Nodes::Resolvers::Stream> stream =
      Services::Nodes::Resolvers::Stream::create(end, nullptr, kFifoResolverValue);
  Ref<PosixFifoSvc> status = PosixFifoSvc::create(end, description);
  if (!stream || !status) return nullptr;
  if (closer) closer->setInner(status);
  auto managerOf = [&](Ref<ConMan> own) -> Ref<ConMan> {
    if (closer) return closer;
    return description ? Ref<ConMan>(HolderGate::create(description, std::move(own))) : own;
  };
  uint64_t streamId = multiplex->add(stream, managerOf(stream));
  uint64_t statusId = multiplex->add(status, managerOf(status));
  if (streamId == 0 || statusId == 0) return nullptr;
  Ref<DeviceNode> node = DeviceNode::create();
  if (!node) return nullptr;
  uint64_t channel = multiplex->channelId();
  node->add(kFifoStreamInterface, channel, streamId, 0, access, 0);
  node->add(kFifoStatusInterface, channel, statusId, 0, kFifoStatusAccess, 0);
  return node;
}
