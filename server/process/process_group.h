// A POSIX process group: an identifier (the pid of the process that created it) and its
// members. Members are held weakly, so a group never keeps a process alive; the members'
// `group` fields keep the group alive, and it dies with its last member record.
//
// The group registry and the member lists have no lock: groups are made, joined, looked up
// and signalled only on the main service thread.
#pragma once

#include <cstdint>

#include "common/tlist.h"
#include "process/posix_process.h"

class PosixProcessGroup : public Object {
 public:
  // A new group led by `leader`, listed in the group registry.
  static Ref<PosixProcessGroup> create(const Ref<PosixProcess>& leader);
  // The living group with `id`, or null. Drops dead registry slots it passes.
  static Ref<PosixProcessGroup> find(uint64_t id);

  uint64_t id() const { return id_; }
  bool addMember(const Ref<PosixProcess>& process);
  bool removeMember(const Ref<PosixProcess>& process);
  // Signals every living member that `sender` may control; always answers 1.
  uint32_t signalAll(const Ref<PosixProcess>& sender, uint32_t signum, const StatusRecord* record);
  // Living members (tests and diagnostics).
  uint64_t livingMembers() const;

  // The process-wide registry, made and released by the server's start-up and exit handlers.
  static void createRegistry();
  static void releaseRegistry();
  // Groups the registry lists, living or not (tests and diagnostics).
  static uint64_t registrySize();

 private:
  explicit PosixProcessGroup(uint64_t id);
  uint64_t id_;
  Ref<TList<WeakRef<PosixProcess>>> members_;  // in order of joining
};
