// An open file description as the server holds it: what one open, one pipe end or one socket
// makes, shared by every descriptor (in any table) that refers to it. Each kind publishes its
// services on a node through which clients reach it.
#pragma once

#include <cstdint>

#include "platform/devnode.h"
#include "platform/object.h"

// Description type codes as descriptor tables report them.
enum DescriptionType : int32_t {
  kTypeRegularFile = 1,
  kTypeDirectory = 2,
  kTypeCharDevice = 3,
  kTypeBlockDevice = 4,
  kTypeFifo = 5,
  kTypeSocket = 6,
  kTypeTableEnd = 8,
  kTypeOther = 9,
};

class FileDescriptionServer : public virtual RefCount {
 public:
  // The description's type code; never fails.
  virtual int32_t type() const = 0;
  // The node that lists the description's services; set on every server handed to a table.
  const Ref<DeviceNode>& node() const { return node_; }

 protected:
  Ref<DeviceNode> node_;
};
