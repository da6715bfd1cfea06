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
  process_->pid_ = Binary::create(path, start_.startFlags, start_.arguments.data(),
                                  start_.arguments.size(), start_.environment, start_.startOptions);
  uint64_t pid = process_->pid_;
  startError_ = pid == 0 ? Error::get() : 0;
  int expected = kStarting;
  if (!state_.compare_exchange_strong(expected, kReported)) {
    // Given up by the spawning thread: nobody knows this program, so it does not stay.
    POSIX_LOG(agentLog.handle, 2, "Program start given up after " << LogNum{kStartLimitMs}
                                      << " ms: " << path);
    if (pid != 0) {
      Proc::terminate(pid);
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

  uint32_t exitCode = Proc::wait();
  linked_->down();
  POSIX_LOG(agentLog.handle, 1,
            "Process " << path << " (" << LogNum{pid} << ") terminated with exitcode "
                       << LogNum{exitCode});
  process_->markTerminated(exitCode);
  if (Ref<PosixProcess> parent = process_->parent()) parent->childExited(process_);
  process_.reset();
}

void PosixProcess::markTerminated(uint32_t exitCode) {
  exitCode_ = exitCode;
  terminated_.store(true, std::memory_order_release);
  ProcessRegistry::remove(this);
  Ref<FDTable> table;
  {
    MonLock lock(monitor_);
    table = std::move(fdTable_);
  }
  // The table (and with it the descriptors) goes outside the record's monitor.
  table.reset();
  unclaimedPipeEnds_->closeAll();
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
  if (child->pid_ == 0) {
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
