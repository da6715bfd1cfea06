// A record's life as its program's: the start (a new record, its copy of the parent's table and
// its agent), the link to its parent once the program runs, and the end (exit code first, then
// the registry, the table and the group let go of it).
#include <posix/wire.h>

#include <cerrno>

#include "fd/fd_table.h"
#include "fifo/unclaimed_pipe_ends.h"
#include "platform/error.h"
#include "platform/shmem.h"
#include "process/agent_threads.h"
#include "process/posix_process.h"
#include "process/process_agent.h"
#include "process/process_group.h"
#include "process/process_registry.h"

void PosixProcess::linkTo(const Ref<PosixProcess>& parent) {
  setGroup(parent->group());
  MonLock parentLock(parent->monitor_);
  ProcessRegistry::add(this);
  parent->children_.append(pid(), this);
  --parent->startsPending_;  // counted as a child from here on
}

void PosixProcess::markEnded(uint32_t exitCode) {
  MonLock lock(monitor_);
  exitCode_ = exitCode;
  terminated_.store(true, std::memory_order_release);
}

void PosixProcess::unlinkEnded() {
  ProcessRegistry::remove(this);
  Ref<FDTable> table;
  TKeyedList<PosixProcess> ended;
  {
    MonLock lock(monitor_);
    table = std::move(fdTable_);
    // Nobody collects for an ended program: the record keeps neither its ended children nor
    // the memory handed to it (childExited keeps no more either).
    ended.swap(zombies_);
    sharedMemory_.reset();
  }
  // The table (and with it the descriptors) and the ended children go outside the record's
  // monitor.
  table.reset();
  ended.clear();
  unclaimedPipeEnds_->closeAll();
  // A group signal must not reach the pid once it may belong to someone else.
  if (group_) group_->removeMember(this);
}

uint32_t PosixProcess::spawn(const Ref<PosixProcess>& parent, ProgramStart start,
                             Ref<InMsg> request) {
  Error::set(EINVAL);
  if (!parent || !request) return PX_RESULT_FAILED;
  // The child gets the parent's table as it is now, when the request is read, whenever its
  // program comes to run. A parent whose program has ended has no table any more and gets no
  // child: nobody would know it.
  Ref<FDTable> table = parent->fdTable();
  Error::set(ESRCH);
  if (!table || parent->terminated()) return PX_RESULT_FAILED;
  if (!parent->reserveStart()) return PX_RESULT_LIMIT;
  Ref<PosixProcess> child = new PosixProcess();
  child->parent_ = WeakRef<PosixProcess>(parent);
  child->fdTable_ = new FDTable(table);
  // A shared-memory object that cannot be opened fails the start with the host's reason.
  if (start.sharedMemory.id != 0 && !(child->sharedMemory_ = ShMem::open(start.sharedMemory))) {
    parent->dropStart();
    return PX_RESULT_FAILED;
  }
  Ref<ProcessAgent> agent = new ProcessAgent(parent, child, std::move(start), std::move(request));
  Error::set(EAGAIN);
  if (AgentThreads::run(agent)) return PX_RESULT_DONE;
  parent->dropStart();
  return PX_RESULT_FAILED;
}
