// Signals sent through "posix.service": to one process, to a group, or to every process.
//
// A target is named by pid and is the process that has that pid now: a record of an earlier
// process with the same pid (still held by a link a forked child kept) is never signalled in
// its place. Levels come from the records, settled when they were made.
#include <posix/posix_service.h>
#include <posix/wire.h>

#include <unordered_set>
#include <vector>

#include "core/posix_service.h"
#include "common/request_reader.h"
#include "platform/error.h"
#include "process/process_group.h"

namespace {


bool hostSignal(uint32_t signum, HostSignal* what) {
  switch (signum) {
    case PX_SIG_KILL: *what = HostSignal::Kill; return true;
    case PX_SIG_STOP: *what = HostSignal::Stop; return true;
    case PX_SIG_CONT: *what = HostSignal::Cont; return true;
    default: return false;
  }
}

// A process the server does not serve may still be killed, stopped or continued by a caller
// whose level is not below the target's; it never receives any other signal. A program the
// server started that has not connected is such a process too, but its record knows the host
// process group it leads.
uint32_t signalUnconnected(const Ref<PosixProcess>& caller, const ProcIdentity& who, uint32_t signum) {
  Ref<PosixProcess> started = PosixProcess::find(who);
  uint32_t level = 0;
  if (started) {
    level = started->level();
  } else {
    Ref<ProcInfo> info = Proc::info(who.pid);
    if (!info) return PX_RESULT_NO_PROCESS;
    level = info->level();
  }
  if (caller->level() < level) return PX_RESULT_NOT_PERMITTED;
  HostSignal what;
  if (!hostSignal(signum, &what)) return PX_RESULT_NO_PROCESS;
  if (started) return started->hostSignal(what);
  if (Proc::send(who, what)) return PX_RESULT_DONE;
  return Error::get() == ESRCH ? PX_RESULT_NO_PROCESS : PX_RESULT_NOT_PERMITTED;
}

}  // namespace

uint32_t PosixService::kill(const Ref<PosixProcess>& caller, const Ref<InMsg>& request) {
  uint64_t pid = 0;
  uint32_t signum = 0;
  StatusRecord info{};
  if (!readRequest<PX_CMD_KILL>(request, &pid, &signum, &info)) return PX_RESULT_SHORT_REQUEST;
  if (signum >= PX_SIG_COUNT) return PX_RESULT_BAD_SIGNAL;
  // A thread id that does not lead its process, the server's threads among them, has none.
  ProcIdentity who = Proc::identity(pid);
  if (!who) return PX_RESULT_NO_PROCESS;
  Ref<PosixProcess> target = findConnected(who);
  if (!target) return signalUnconnected(caller, who, signum);
  if (!target->mayControl(caller)) return PX_RESULT_NOT_PERMITTED;
  return target->signal(caller, signum, &info, RecordPlacement::Data);
}

bool PosixService::killGroup(const Ref<PosixProcess>& caller, const Ref<InMsg>& request,
                             uint32_t* result) {
  uint64_t selector = 0;
  Broadcast b;
  if (!readRequest<PX_CMD_KILL_GROUP>(request, &selector, &b.signum, &b.record)) {
    *result = PX_RESULT_SHORT_REQUEST;
    return true;
  }
  if (broadcasts_.full(caller)) {
    *result = PX_RESULT_LIMIT;
    return true;
  }
  b.request = request;
  b.sender = caller;
  if (selector == PX_KILL_SELECTOR_ALL) {
    // Signals of 32 or more reach nobody and never count.
    if (b.signum >= PX_SIG_COUNT) {
      *result = PX_RESULT_NOT_PERMITTED;
      return true;
    }
    // Every connected process whose level is not above the caller's, once each, in the order
    // of the connection table; the caller too.
    b.everyProcess = true;
    std::unordered_set<PosixProcess*> seen;
    for (uint64_t id = 1; id < processes_->capacity(); ++id) {
      Ref<PosixProcess> target = processes_->get(id);
      if (!target || target->level() > caller->level() || !seen.insert(target.get()).second) continue;
      b.targets.push_back(std::move(target));
    }
  } else {
    Ref<PosixProcessGroup> group =
        selector == PX_KILL_SELECTOR_OWN_GROUP ? caller->group() : PosixProcessGroup::find(selector);
    if (!group) {
      *result = PX_RESULT_NO_PROCESS;
      return true;
    }
    b.group = group;
    b.before = group->nextSerial();
  }
  return broadcasts_.submit(std::move(b), result);
}
