// The server's record of one POSIX process: its pid, parent and children, terminated children
// not yet collected, pending waits and signals, its process group and its descriptor table.
//
// A record belongs to one process identity (pid and the host's serial of the process): a
// link is bound to the record of its peer's identity, and a process that gets a pid again is a
// new process with a record of its own. Every record is also listed (weakly) in the process
// registry so that it can be found by identity. A record is kept alive by the connection tables
// while its program is connected, by its parent's `children` or `zombies`, and by its
// ProcessAgent while the program runs.
//
// Locking: `monitor_` guards children_, zombies_, startsPending_, waitEntries_, pendingSignals_,
// signalWaiter_, sharedMemory_ and fdTable_; host signals are sent under it, and the agent marks
// the program ended under it before collecting it, so a signal to a started program's host
// process group never reaches a group id that was handed on. Lock order: a process's monitor
// before the registry's monitor, and before its group's lock; a parent's monitor before
// anything its children's destruction takes.
#pragma once

#include <posix/posix_service.h>

#include <cstdint>
#include <vector>

#include "common/tkeyed_list.h"
#include "common/tvector.h"
#include "platform/message.h"
#include "platform/proc.h"
#include "platform/string.h"
#include "platform/sync.h"
#include "platform/env.h"
#include "platform/shmem.h"

class DescriptionBudget;
class FDTable;
class PosixProcessGroup;
class UnclaimedPipeEnds;
struct WaitEntry;

// The child-status record and the signal record share one 32-byte layout.
using StatusRecord = px_status_record;

// Where a signal's record travels in the notification to a signal waiter: the process
// service's own kill writes it into the data stream, every other sender attaches it as a
// typed record block.
enum class RecordPlacement { Data, Block };

// What a spawn request asks for; handed through to the platform's program start unchanged.
struct ProgramStart {
  Ref<String> path;
  uint32_t startFlags = 0;
  std::vector<Ref<String>> arguments;
  Ref<Env> environment;
  uint32_t startOptions = 0;
  StartFiles files;      // the caller's own files that came with the request
  ShMemID sharedMemory;  // all zero for none
};

class PosixProcess : public Object {
 public:
  // The registered, living record of `identity`, or null.
  static Ref<PosixProcess> find(const ProcIdentity& identity);
  // The record of the process that has `pid` now, or null.
  static Ref<PosixProcess> findByPid(uint64_t pid);
  // The record of a program that connected by itself: parentless, leading a new group, with a
  // fresh descriptor table; `level` is its privilege level (ProcInfo::level). Answers the
  // existing record when one appeared meanwhile.
  static Ref<PosixProcess> createEntry(const ProcIdentity& identity, uint32_t level);
  // Starts a program as a child of `parent` on an agent's thread, which answers `request`
  // (the child's pid, or why it failed): PX_RESULT_DONE then. The child's descriptor table is
  // a copy of the parent's as it is at this call. Otherwise nothing was started and the caller
  // answers: PX_RESULT_LIMIT when `parent` has maxChildren() children, PX_RESULT_FAILED with
  // Error set when `parent`'s program has ended (ESRCH) or no agent could take it (EAGAIN).
  static uint32_t spawn(const Ref<PosixProcess>& parent, ProgramStart start, Ref<InMsg> request);
  // The children one process may have: living, ended and not yet collected, and starts in
  // progress together. Each running child takes two of the host's tasks (its program and its
  // agent thread), so one process may take at most half of what Proc::taskLimit() allows:
  // a quarter of it in children, at least 16 and at most 8192.
  static uint64_t maxChildren();

  // Moves this process into `group`, or into a new group it leads when `group` is null.
  bool setGroup(Ref<PosixProcessGroup> group);
  // Whether `sender` may signal this process: itself, or a sender whose level is not below.
  bool mayControl(const Ref<PosixProcess>& sender) const;
  // Delivers signal `signum`; answers 2 for a bad number, 3 when the process has gone (its
  // program ended, or its pid names another process now), 0 when the platform refused, else 1.
  uint32_t signal(const Ref<PosixProcess>& sender, uint32_t signum, const StatusRecord* record,
                  RecordPlacement placement = RecordPlacement::Block);
  // Kill, stop or continue the host process (and, for a program the server started, the host
  // process group it leads); answers as signal() does.
  uint32_t hostSignal(HostSignal what);
  // Keeps `request` until the next signal (true), or answers it with the pending ones (false).
  bool waitSignal(const Ref<InMsg>& request);
  // Called on the child's agent thread when the child's program has ended.
  void childExited(const Ref<PosixProcess>& child);

  // Waits for a child (kind PX_WAIT_*); always answers the request itself, now or later.
  bool wait(const Ref<InMsg>& request, uint32_t kind, uint64_t value, uint64_t options);
  // Answers every queued wait with `status` and frees it.
  void failWaiters(uint32_t status);

  uint64_t pid() const { return identity_.pid; }
  const ProcIdentity& identity() const { return identity_; }
  uint32_t level() const { return level_; }
  Ref<PosixProcess> parent() const { return parent_.lock(); }
  Ref<PosixProcessGroup> group() const;
  uint64_t groupId() const;
  Ref<FDTable> fdTable() const;
  // The published pipe ends this process made that no client has connected to yet; they are
  // closed when the process ends.
  const Ref<UnclaimedPipeEnds>& unclaimedPipeEnds() const { return unclaimedPipeEnds_; }
  // The descriptions this process made that are still alive, and its bounds on them.
  const Ref<DescriptionBudget>& descriptions() const { return descriptions_; }
  // The shared memory handed over at creation, granted to this process; all zero if none.
  ShMemID grantSharedMemory();
  bool terminated() const { return terminated_.load(std::memory_order_acquire); }
  uint32_t exitCode() const { return exitCode_; }
  StatusRecord statusRecord() const;

  // For the introspection service: whether the server started the program, the program's
  // path and arguments (set by its agent before the record is listed; a text longer than 4096
  // bytes is cut and ends with "..."), whether a signal wait
  // is kept, and the ended children not yet collected.
  bool startedHere() const { return started_; }
  const Ref<String>& program() const { return program_; }
  bool hasSignalWaiter() const;
  std::vector<Ref<PosixProcess>> zombies() const;

  // Links on posix.service bound to this record, counted by the service as they connect and
  // close (service thread only): kill finds a connected target through the registry's index.
  void countServiceLink(bool added) { serviceLinks_ += added ? 1 : -1; }
  bool hasServiceLink() const { return serviceLinks_ != 0; }

  // Counts for tests and diagnostics.
  uint64_t childCount() const;
  uint64_t zombieCount() const;
  uint64_t waitCount() const;
  uint32_t pendingSignals() const;

  ~PosixProcess() override;

 private:
  friend class ProcessAgent;
  PosixProcess();

  // Takes the parent's group and lists the record in the registry and among the parent's
  // children (agent thread, once the program has started). The record holds its copy of the
  // parent's table from the spawn on.
  void linkTo(const Ref<PosixProcess>& parent);
  // Counts a start in progress among the children (service thread); false, and nothing
  // counted, when the process has maxChildren() already.
  bool reserveStart();
  // Forgets a start in progress that left no child (agent thread).
  void dropStart();
  // Marks the program as ended, under the monitor (agent thread, before it collects it).
  void markEnded(uint32_t exitCode);
  // Unlinks the record of an ended program: registry, descriptors, pipes, group (agent thread).
  void unlinkEnded();
  bool matches(uint32_t kind, uint64_t value) const;
  // The oldest of `list` that a wait of `kind` for `value` collects, or null (under monitor_).
  static Ref<PosixProcess> firstMatching(const TKeyedList<PosixProcess>& list, uint32_t kind,
                                         uint64_t value);
  void sendSignalLocked(uint32_t signum, const StatusRecord& record, RecordPlacement placement);

  // Written once, before the record is listed: by connect, or by the agent that started it.
  ProcIdentity identity_;
  uint32_t level_ = 0;
  bool started_ = false;  // a program the server started (it leads its host process group)
  Ref<String> program_;   // its path and arguments, cut to their first 4096 bytes
  Ref<Mon> monitor_;
  WeakRef<PosixProcess> parent_;
  TKeyedList<PosixProcess> children_;  // living children by pid, in order of creation
  TKeyedList<PosixProcess> zombies_;   // ended children not yet collected, by pid
  Ref<TVector<WaitEntry*>> waitEntries_;      // queued blocking waits, owned here
  uint64_t startsPending_ = 0;                // starts handed to agents and not yet linked
  Ref<SharedMemory> sharedMemory_;
  Ref<FDTable> fdTable_;
  std::atomic<bool> terminated_{false};
  uint32_t exitCode_ = 0;  // written before terminated_ is set
  uint32_t pendingSignals_ = 0;  // bit s-1 for a pending signal s
  Ref<InMsg> signalWaiter_;
  Ref<PosixProcessGroup> group_;  // set before the record is listed
  Ref<UnclaimedPipeEnds> unclaimedPipeEnds_;  // set in the constructor; locks itself
  Ref<DescriptionBudget> descriptions_;       // set in the constructor; atomic inside
  uint32_t serviceLinks_ = 0;  // links on posix.service; touched by the service thread only
};
