#include "process/process_agent.h"

#include <cerrno>

#include "fd/fd_table.h"
#include "fifo/unclaimed_pipe_ends.h"
#include "platform/error.h"
#include "process/process_group.h"
#include "process/process_log.h"
#include "process/process_registry.h"

namespace posix {
LogModule agentLog;
}

namespace {
// How long the service thread waits for a program start. A start that is not waiting on
// anything takes milliseconds; one that is has been handed something nobody answers.
constexpr uint32_t kStartLimitMs = 5000;
}  // namespace
using posix::agentLog;
using posix::LogNum;

ProcessAgent::ProcessAgent(Ref<PosixProcess> process, ProgramStart start)
    : process_(std::move(process)), start_(std::move(start)), started_(Sem::create(0)), linked_(Sem::create(0)) {}

void ProcessAgent::run() {
  const Ref<String>& path = start_.path;
  uint64_t pid = Binary::create(path, start_.startFlags, start_.arguments.data(),
                                start_.arguments.size(), start_.environment, start_.startOptions);
  startError_ = pid == 0 ? Error::get() : 0;
  if (pid != 0) {
    // The program is this thread's child and not collected: its pid cannot name another
    // process yet, so the identity read now is its own. It runs as the server's user.
    ProcIdentity identity = Proc::identity(pid);
    if (!identity) {
      POSIX_LOG(agentLog.handle, 2, "Could not read the identity of process " << LogNum{pid});
      identity = ProcIdentity{pid, 0};  // host signals will find nobody of this identity
    }
    process_->identity_ = identity;
    process_->level_ = Proc::levelOfUser(Proc::uid());
    process_->started_ = true;
  }
  int expected = kStarting;
  if (!state_.compare_exchange_strong(expected, kReported)) {
    // Given up by the spawning thread: nobody knows this program, so it does not stay.
    POSIX_LOG(agentLog.handle, 2, "Program start given up after " << LogNum{kStartLimitMs}
                                      << " ms: " << path);
    if (pid != 0) {
      Proc::send(process_->identity_, HostSignal::Kill, true);
      Proc::wait();
    }
    process_.reset();
    return;
  }
  started_->up();
  if (pid == 0) {
    POSIX_LOG(agentLog.handle, 2, "Could not create new process for " << path);
    process_.reset();
    return;
  }
  if (Ref<PosixProcess> parent = process_->parent()) {
    POSIX_LOG(agentLog.handle, 1,
              "Process " << LogNum{parent->pid()} << " created new child process " << path
                         << " with pid: " << LogNum{pid});
  } else {
    POSIX_LOG(agentLog.handle, 1, "New process " << path << " created with pid " << LogNum{pid});
  }

  // The end is noted before the program is collected: until markEnded() a signal sender may
  // still use the pid and the group id the program leads.
  uint32_t exitCode = Proc::awaitEnd();
  linked_->down();
  POSIX_LOG(agentLog.handle, 1,
            "Process " << path << " (" << LogNum{pid} << ") terminated with exitcode "
                       << LogNum{exitCode});
  process_->markEnded(exitCode);
  Proc::wait();
  process_->unlinkEnded();
  if (Ref<PosixProcess> parent = process_->parent()) parent->childExited(process_);
  process_.reset();
}

void PosixProcess::markEnded(uint32_t exitCode) {
  MonLock lock(monitor_);
  exitCode_ = exitCode;
  terminated_.store(true, std::memory_order_release);
}

void PosixProcess::unlinkEnded() {
  ProcessRegistry::remove(this);
  Ref<FDTable> table;
  {
    MonLock lock(monitor_);
    table = std::move(fdTable_);
  }
  // The table (and with it the descriptors) goes outside the record's monitor.
  table.reset();
  unclaimedPipeEnds_->closeAll();
  // A group signal must not reach the pid once it may belong to someone else.
  if (group_) group_->removeMember(this);
}

bool ProcessAgent::awaitStart(uint32_t timeoutMs) {
  if (started_->down(timeoutMs)) return true;
  int expected = kStarting;
  if (state_.compare_exchange_strong(expected, kAbandoned)) return false;
  started_->down();  // the agent reported just now: its post is on the way
  return true;
}

Ref<PosixProcess> PosixProcess::spawn(const Ref<PosixProcess>& parent, ProgramStart start) {
  if (!parent) return nullptr;
  Ref<PosixProcess> child = new PosixProcess();
  child->parent_ = WeakRef<PosixProcess>(parent);
  if (start.sharedMemory.id != 0) child->sharedMemory_ = ShMem::open(start.sharedMemory);

  Ref<ProcessAgent> agent = new ProcessAgent(child, std::move(start));
  Ref<Thd> thread = Thd::create(agent);
  Error::set(EAGAIN);
  if (!thread) return nullptr;
  thread->setName("PosixChild");
  if (!thread->start()) return nullptr;
  if (!agent->awaitStart(kStartLimitMs)) {
    Error::set(ETIMEDOUT);
    return nullptr;
  }
  if (child->identity_.pid == 0) {
    Error::set(agent->startError());
    return nullptr;
  }

  child->setGroup(parent->group());
  child->fdTable_ = new FDTable(parent->fdTable());
  {
    MonLock parentLock(parent->monitor_);
    ProcessRegistry::add(child);
    parent->children_->append(child);
  }
  agent->releaseEnd();
  return child;
}
