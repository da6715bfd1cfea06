// An open file description as the server holds it: what one open, one pipe end or one socket
// makes, shared by every descriptor (in any table) that refers to it. Each kind publishes its
// services on a node through which clients reach it, served over the description's own
// service multiplex, to the processes that hold it only (description_holders.h).
//
// A description dies on whatever thread drops its last reference, often one of its own
// multiplex's threads; so the multiplex is never closed there but handed to the deferred close
// queue, whose thread closes it later.
#pragma once

#include <cstdint>

#include "fd/description_budget.h"
#include "platform/devnode.h"
#include "platform/multiplex.h"
#include "platform/object.h"

// Description type codes as descriptor tables report them.
enum DescriptionType : int32_t {
  kTypeRegularFile = 1,
  kTypeDirectory = 2,
  kTypeCharDevice = 3,
  kTypeBlockDevice = 4,
  kTypeFifo = 5,
  kTypeSocket = 6,
  kTypeTableMore = 7,  // a serialised table goes on in a further reply
  kTypeTableEnd = 8,
  kTypeOther = 9,
};

class FileDescriptionServer : public virtual RefCount {
 public:
  // The description's type code; never fails.
  virtual int32_t type() const = 0;
  // The node that lists the description's services; set on every server handed to a table.
  const Ref<DeviceNode>& node() const { return node_; }
  const Ref<Libraries::Service::Multiplex>& multiplex() const { return multiplex_; }
  // The share of its maker's budget that the description holds for its life; set once, by
  // the service that made it, before any table holds it.
  void setCharge(Ref<DescriptionCharge> charge) { charge_ = std::move(charge); }

 protected:
  // Hands a multiplex that is still set to the close queue, then releases the node.
  ~FileDescriptionServer() override;

  // Adds `service` to the multiplex with `conMan` as its manager, behind a gate that admits
  // only holders of this description (description_holders.h); the service id, or 0.
  uint64_t addForHolders(const Ref<Interfaces::Service>& service, Ref<ConMan> conMan);

  // Set by the concrete server while it is built, then only read.
  Ref<Libraries::Service::Multiplex> multiplex_;
  Ref<DeviceNode> node_;

 private:
  Ref<DescriptionCharge> charge_;
};
