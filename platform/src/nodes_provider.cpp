// The node provider: what a client receives to find a node's services. It travels as the node's
// record, the same bytes a device-node file holds.
#include <cerrno>
#include <vector>

#include "platform/error.h"
#include "platform/nodes.h"
#include "posix/nodes.h"

namespace Services::Nodes {

namespace {
void putU32(std::vector<uint8_t>& out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}
void putU64(std::vector<uint8_t>& out, uint64_t value) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}
}  // namespace

Ref<Provider> Provider::create(Ref<DeviceNode> node, uint64_t value) {
  if (!node) {
    Error::set(EINVAL);
    return nullptr;
  }
  return new Provider(std::move(node), value);
}

bool Provider::serialize(const Ref<Interfaces::Stream>& out, uint32_t timeoutMs) const {
  if (!out) return false;
  std::vector<NodeEntry> entries = node_->entries();
  std::vector<uint8_t> record;
  record.reserve(PX_NODE_COUNT_SIZE + PX_NODE_ENTRY_SIZE * entries.size());
  putU32(record, static_cast<uint32_t>(entries.size()));
  for (const NodeEntry& e : entries) {
    putU64(record, e.type);
    putU64(record, e.channel);
    putU64(record, e.service);
    putU64(record, e.reserved0);
    putU64(record, e.access);
    putU64(record, e.reserved1);
  }
  uint64_t size = record.size();
  return out->write(Interfaces::MemDesc::direct(record.data(), size), size, timeoutMs) == size;
}

}  // namespace Services::Nodes
