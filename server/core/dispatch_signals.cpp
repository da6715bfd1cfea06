// Signals sent through "posix.service": to one process, to a group, or to every process.
#include <posix/posix_service.h>

#include <vector>

#include "core/posix_service.h"
#include "core/request_reader.h"
#include "process/process_group.h"

namespace {

bool readSignalRequest(const Ref<InMsg>& request, uint64_t* target, uint32_t* signum, StatusRecord* info) {
  return readValue(request, target) && readValue(request, signum) && readValue(request, info);
}

// A process the server does not serve may still be killed, stopped or continued by a caller
// whose privilege is not below the target's; it never receives any other signal.
uint32_t signalUnconnected(const Ref<PosixProcess>& caller, uint64_t pid, uint32_t signum) {
  Ref<ProcInfo> target = Proc::info(pid);
  if (!target) return PX_RESULT_NO_PROCESS;
  Ref<ProcInfo> sender = Proc::info(caller->pid());
  if (!sender || sender->level() < target->level()) return PX_RESULT_NOT_PERMITTED;
  bool done;
  switch (signum) {
    case PX_SIG_KILL: done = Proc::terminate(pid); break;
    case PX_SIG_CONT: done = Proc::cont(pid); break;
    case PX_SIG_STOP: done = Proc::stop(pid); break;
    default: return PX_RESULT_NO_PROCESS;
  }
  return done ? PX_RESULT_DONE : PX_RESULT_NOT_PERMITTED;
}

}  // namespace

uint32_t PosixService::kill(const Ref<PosixProcess>& caller, const Ref<InMsg>& request) {
  uint64_t pid = 0;
  uint32_t signum = 0;
  StatusRecord info{};
  if (!readSignalRequest(request, &pid, &signum, &info)) return PX_RESULT_SHORT_REQUEST;
  if (signum >= PX_SIG_COUNT) return PX_RESULT_BAD_SIGNAL;
  Ref<PosixProcess> target = findByPid(pid);
  if (!target) return signalUnconnected(caller, pid, signum);
  if (!target->mayControl(caller)) return PX_RESULT_NOT_PERMITTED;
  return target->signal(caller, signum, &info, RecordPlacement::Data);
}

uint32_t PosixService::killGroup(const Ref<PosixProcess>& caller, const Ref<InMsg>& request) {
  uint64_t selector = 0;
  uint32_t signum = 0;
  StatusRecord info{};
  if (!readSignalRequest(request, &selector, &signum, &info)) return PX_RESULT_SHORT_REQUEST;

  if (selector == PX_KILL_SELECTOR_ALL) {
    Ref<ProcInfo> callerInfo = Proc::info(caller->pid());
    if (!callerInfo || signum >= PX_SIG_COUNT) return PX_RESULT_NOT_PERMITTED;
    // A process connected through several links is signalled once.
    std::vector<PosixProcess*> visited;
    bool counted = false;
    for (uint64_t id = 1; id < processes_->capacity(); ++id) {
      Ref<PosixProcess> target = processes_->get(id);
      if (!target) continue;
      bool seen = false;
      for (PosixProcess* p : visited) seen = seen || p == target.get();
      if (seen) continue;
      visited.push_back(target.get());
      Ref<ProcInfo> targetInfo = Proc::info(target->pid());
      if (!targetInfo || targetInfo->level() > callerInfo->level()) continue;
      if (target->signal(caller, signum, &info, RecordPlacement::Data) == PX_RESULT_DONE) counted = true;
    }
    return counted ? PX_RESULT_DONE : PX_RESULT_NOT_PERMITTED;
  }

  Ref<PosixProcessGroup> group =
      selector == PX_KILL_SELECTOR_OWN_GROUP ? caller->group() : PosixProcessGroup::find(selector);
  if (!group) return PX_RESULT_NO_PROCESS;
  return group->signalAll(caller, signum, &info);
}
