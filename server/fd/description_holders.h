// Who may use the services of a description that descriptor tables hold: a process whose table
// holds it now, through its own descriptors or those it was started with. Anyone of the
// server's user can list a description's channel in RT/chn and name a service by its number,
// so every bind to such a service passes a HolderGate, and a request that hands out more than
// answers (a pipe's shared page, a file's host open file) asks holds() again: the caller may
// have closed its last descriptor since it bound. Both are asked once per link or hand-over,
// never per read or write.
//
// The process records that own the tables sit above this layer: the descriptor service hands
// in the lookup from a process identity to its table once, before it serves. Without it nobody
// holds anything.
#pragma once

#include "fd/fd_table.h"
#include "platform/chn.h"
#include "platform/proc.h"

namespace DescriptionHolders {

// The table of the living process `identity`, or null.
using TableOf = Ref<FDTable> (*)(const ProcIdentity& identity);
void setLookup(TableOf lookup);

// Whether the table of the process `identity` holds `description` now; false for null.
bool holds(const ProcIdentity& identity, const FileDescriptionServer* description);

}  // namespace DescriptionHolders

// A connection manager in front of a service's own: admits a link only when its peer holds the
// description, and then hands the link (and later its disconnection) to the service's manager.
// It holds the description weakly, so a description that has gone admits nobody.
class HolderGate : public Object, public ConMan {
 public:
  // Null when `inner` is null.
  static Ref<HolderGate> create(FileDescriptionServer* description, Ref<ConMan> inner);

  bool connect(const Ref<ChnLink>& link) override;
  void disconnect(const Ref<ChnLink>& link) override { inner_->disconnect(link); }

 private:
  HolderGate(FileDescriptionServer* description, Ref<ConMan> inner)
      : description_(description), inner_(std::move(inner)) {}

  const WeakRef<FileDescriptionServer> description_;
  const Ref<ConMan> inner_;
};
