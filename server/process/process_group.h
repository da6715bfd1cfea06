// A POSIX process group: an identifier (the pid of the process that created it) and its
// members. Members are held weakly, so a group never keeps a process alive; the members'
// `group` fields keep the group alive, and it dies with its last member record.
//
// Members are kept in order of joining, each under a join serial, with an index by record
// beside them: joining, leaving and a look-up cost the same however large the group is. A
// record leaves its group when its program ends and, at the latest, when the record dies, so
// the list never holds the dead. A group signal walks the members a slice at a time from a
// serial on, without copying them.
//
// The group registry (groups by identifier) has a lock of its own: groups are made and looked
// up on the main service thread, but a group dies on whatever thread lets go of its last
// member. The member list has a lock of its own, since a started program leaves its group on
// its agent's thread when it ends (so that a group signal never reaches its pid once that may
// name another process). Neither lock is held while the other is taken.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "process/posix_process.h"

class PosixProcessGroup : public Object {
 public:
  // A new group led by `leader`, listed in the group registry.
  static Ref<PosixProcessGroup> create(const Ref<PosixProcess>& leader);
  // The oldest living group with `id`, or null.
  static Ref<PosixProcessGroup> find(uint64_t id);

  uint64_t id() const { return id_; }
  bool addMember(const Ref<PosixProcess>& process);
  bool removeMember(const PosixProcess* process);
  // The living members, in order of joining.
  std::vector<Ref<PosixProcess>> members() const;
  // The serial the next member to join will get: a walk bounded by it leaves out those who
  // join after it was taken.
  uint64_t nextSerial() const;
  // At most `count` living members whose join serials are in [*from, before), in order of
  // joining; *from is moved past them, to `before` when none is left.
  std::vector<Ref<PosixProcess>> membersFrom(uint64_t* from, uint64_t before, size_t count) const;
  // Signals every living member that `sender` may control; always answers 1.
  uint32_t signalAll(const Ref<PosixProcess>& sender, uint32_t signum, const StatusRecord* record);
  // Members listed (tests and diagnostics).
  uint64_t livingMembers() const;

  ~PosixProcessGroup() override;

  // The process-wide registry, made and released by the server's start-up and exit handlers.
  static void createRegistry();
  static void releaseRegistry();
  // Groups the registry lists, living or not (tests and diagnostics).
  static uint64_t registrySize();

 private:
  explicit PosixProcessGroup(uint64_t id);
  uint64_t id_;
  mutable std::mutex mutex_;
  std::map<uint64_t, WeakRef<PosixProcess>> members_;        // guarded by mutex_; by join serial
  std::unordered_map<const PosixProcess*, uint64_t> joined_;  // guarded by mutex_; serial of each
  uint64_t nextSerial_ = 0;                                   // guarded by mutex_
};
