// A POSIX process group: an identifier (the pid of the process that created it) and its
// members. Members are held weakly, so a group never keeps a process alive; the members'
// `group` fields keep the group alive, and it dies with its last member record.
//
// The group registry has no lock: groups are made, joined and looked up only on the main
// service thread. The member list has a lock of its own, since a started program leaves its
// group on its agent's thread when it ends (so that a group signal never reaches its pid once
// that may name another process).
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

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
  // The living members, in order of joining.
  std::vector<Ref<PosixProcess>> members() const;
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
  mutable std::mutex mutex_;
  Ref<TList<WeakRef<PosixProcess>>> members_;  // guarded by mutex_; in order of joining
};
