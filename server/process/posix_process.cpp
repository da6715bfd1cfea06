#include "process/posix_process.h"

#include <algorithm>

#include "fd/description_budget.h"
#include "fd/fd_table.h"
#include "fifo/unclaimed_pipe_ends.h"
#include "process/process_group.h"
#include "process/process_log.h"
#include "process/process_registry.h"
#include "process/wait_entry.h"
#include "platform/shmem.h"

namespace posix {
LogModule processLog;
}
using posix::LogNum;
using posix::processLog;

PosixProcess::PosixProcess()
    : monitor_(Mon::create()),
      waitEntries_(TVector<WaitEntry*>::create()),
      unclaimedPipeEnds_(UnclaimedPipeEnds::create()),
      descriptions_(DescriptionBudget::create()) {}

PosixProcess::~PosixProcess() {
  // A record whose program never started (pid 0) was never an entry of its own. A started
  // program whose parent has gone is an orphan worth a line; a process that connected by
  // itself and left is everyday business (every posixctl call), logged at level 0.
  if (identity_.pid != 0 && !parent_.lock()) {
    POSIX_LOG(processLog.handle, started_ ? 1 : 0,
              "Entry for orphan process " << LogNum{identity_.pid} << " removed");
  }
  // The registry's listings and the group's membership go with the record, so neither is
  // ever swept for dead entries.
  ProcessRegistry::forget(this);
  if (group_) group_->removeMember(this);
  // Waits still queued belong to a client that will never be answered: free them.
  for (uint64_t i = 0; i < waitEntries_->count(); ++i) delete waitEntries_->get(i);
  unclaimedPipeEnds_->closeAll();
  unclaimedPipeEnds_.reset();
  group_.reset();
  signalWaiter_.reset();
  fdTable_.reset();
  sharedMemory_.reset();
  waitEntries_.reset();
  zombies_.clear();
  children_.clear();
  parent_ = nullptr;
  monitor_.reset();
}

Ref<PosixProcess> PosixProcess::find(const ProcIdentity& identity) {
  return ProcessRegistry::find(identity);
}

Ref<PosixProcess> PosixProcess::findByPid(uint64_t pid) {
  ProcIdentity identity = Proc::identity(pid);
  return identity ? find(identity) : nullptr;
}

Ref<PosixProcess> PosixProcess::createEntry(const ProcIdentity& identity, uint32_t level) {
  Ref<PosixProcess> created = new PosixProcess();
  created->identity_ = identity;
  created->level_ = level;
  created->setGroup(nullptr);
  created->fdTable_ = new FDTable();
  Ref<PosixProcess> process;
  {
    MonLock lock(ProcessRegistry::monitor());
    process = find(identity);
    if (!process) process = created;
    // Listed again even when found: find() answers the first listing.
    ProcessRegistry::add(process);
  }
  POSIX_LOG(processLog.handle, 1, "Entry created for process " << LogNum{identity.pid});
  return process;
}

bool PosixProcess::setGroup(Ref<PosixProcessGroup> group) {
  if (!group) group = PosixProcessGroup::create(this);
  if (group_) {
    if (group_ == group) return true;
    if (!group_->removeMember(this)) return false;
  }
  group_ = group;
  return group->addMember(this);
}

// Levels were settled when the records were made (the user a link reported, or the server's own
// for a program it started), so a check costs no look at /proc.
bool PosixProcess::mayControl(const Ref<PosixProcess>& sender) const {
  if (!sender) return false;
  return sender.get() == this || level_ <= sender->level_;
}

Ref<PosixProcessGroup> PosixProcess::group() const { return group_; }

uint64_t PosixProcess::groupId() const { return group_ ? group_->id() : identity_.pid; }

Ref<FDTable> PosixProcess::fdTable() const {
  MonLock lock(monitor_);
  return fdTable_;
}

ShMemID PosixProcess::grantSharedMemory() {
  MonLock lock(monitor_);
  if (!sharedMemory_) return {};
  sharedMemory_->grant(identity_.pid);
  return sharedMemory_->id();
}

StatusRecord PosixProcess::statusRecord() const {
  StatusRecord record{};
  record.signal = PX_SIG_CHILD;
  record.code = 1;
  record.exit_code = exitCode_;
  record.pid = identity_.pid;
  return record;
}

bool PosixProcess::hasSignalWaiter() const {
  MonLock lock(monitor_);
  return static_cast<bool>(signalWaiter_);
}

std::vector<Ref<PosixProcess>> PosixProcess::zombies() const {
  MonLock lock(monitor_);
  std::vector<Ref<PosixProcess>> out;
  zombies_.forEach([&](const Ref<PosixProcess>& zombie) { out.push_back(zombie); });
  return out;
}

uint64_t PosixProcess::maxChildren() {
  return std::clamp<uint64_t>(Proc::taskLimit() / 4, 16, 8192);
}

bool PosixProcess::reserveStart() {
  const uint64_t limit = maxChildren();  // asks the host: not under the monitor
  MonLock lock(monitor_);
  if (children_.count() + zombies_.count() + startsPending_ >= limit) return false;
  ++startsPending_;
  return true;
}

void PosixProcess::dropStart() {
  MonLock lock(monitor_);
  --startsPending_;
}

uint64_t PosixProcess::childCount() const {
  MonLock lock(monitor_);
  return children_.count();
}
uint64_t PosixProcess::zombieCount() const {
  MonLock lock(monitor_);
  return zombies_.count();
}
uint64_t PosixProcess::waitCount() const {
  MonLock lock(monitor_);
  return waitEntries_->count();
}
uint32_t PosixProcess::pendingSignals() const {
  MonLock lock(monitor_);
  return pendingSignals_;
}
