// Node records and serialised descriptor tables as the descriptor service sends them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "frame.h"
#include "posix/fd_service.h"
#include "posix/nodes.h"

namespace pxc {

// A node record: the services through which a description (or a pipe end) is reached.
struct NodeRecord {
  std::vector<px_node_entry> entries;
  // The first entry of interface type `type`, null if none.
  const px_node_entry* find(uint64_t type) const;
};

// One record of a serialised descriptor table.
struct TableRecord {
  int32_t type = 0;
  uint64_t fd = 0;
  NodeRecord node;
};

// Reads a node record at `*at` of `data` and moves `*at` past it; false when it runs short.
bool parseNode(const std::vector<uint8_t>& data, size_t* at, NodeRecord* out);
// Fetches the whole serialised table, one reply after the other as the server continues it,
// through `call` (one GetTable request and its reply: 0 or an errno value). 0, the transport's
// error, or EPROTO when a reply is malformed or does not move on.
int fetchTable(const std::function<int(FrameWriter&, Reply*)>& call, std::vector<TableRecord>* out);
// A little-endian i32 at `*at`, moving past it; false when the data runs short.
bool takeI32(const std::vector<uint8_t>& data, size_t* at, int32_t* out);

}  // namespace pxc
