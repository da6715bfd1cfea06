// The node provider: what a client receives to find a node's services. It travels as the node's
// record, the same bytes a device-node file holds.
#include <cerrno>
#include <vector>

#include "platform/error.h"
#include "platform/nodes.h"
#include "posix/nodes.h"

namespace Services::Nodes {

Ref<Provider> Provider::create(Ref<DeviceNode> node, uint64_t value) {
  if (!node) {
    Error::set(EINVAL);
    return nullptr;
  }
  return new Provider(std::move(node), value);
}

bool Provider::serialize(const Ref<Interfaces::Stream>& out, uint32_t timeoutMs) const {
  if (!out) return false;
  // The node's own record: the one encoding of u32 count + six u64 per entry.
  std::vector<uint8_t> record = node_->record();
  uint64_t size = record.size();
  return out->write(Interfaces::MemDesc::direct(record.data(), size), size, timeoutMs) == size;
}

}  // namespace Services::Nodes
