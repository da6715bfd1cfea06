// Waiting for children: a wait is answered at once from the zombies, queued while a matching
// child still runs, or answered "nothing to collect". A child's end answers the first matching
// queued wait or leaves the child as a zombie.
#include <posix/posix_service.h>

#include "common/request_log.h"
#include "process/posix_process.h"
#include "process/wait_entry.h"

namespace {

// Queued waits one process may have; a client that asks for more is refused rather than
// growing the server without bound.
constexpr uint64_t kMaxQueuedWaits = 4096;

void answer(const Ref<InMsg>& request, uint32_t status, const StatusRecord* record) {
  Ref<OutMsg> reply = OutMsg::create();
  reply->setCode(status);
  if (record) reply->addBlock(PX_BLOCK_RECORD, record, sizeof *record);
  request->reply(reply);
}

// The answer of a wait that was kept: the monitors see how it ended.
void answerKept(const Ref<InMsg>& request, uint32_t status, const StatusRecord* record) {
  answer(request, status, record);
  RequestLog::noteLate(PX_DIAG_PROCESS_SERVICE, request, status);
}

bool entryMatches(const WaitEntry& entry, const PosixProcess& child) {
  switch (entry.kind) {
    case PX_WAIT_ANY_CHILD: return true;
    case PX_WAIT_BY_PID: return entry.value == child.pid();
    case PX_WAIT_BY_GROUP: return entry.value == child.groupId();
    default: return false;
  }
}

}  // namespace

bool PosixProcess::matches(uint32_t kind, uint64_t value) const {
  WaitEntry probe{nullptr, kind, 0, value, 0};
  return entryMatches(probe, *this);
}

Ref<PosixProcess> PosixProcess::firstMatching(const TKeyedList<PosixProcess>& list, uint32_t kind,
                                              uint64_t value) {
  switch (kind) {
    case PX_WAIT_ANY_CHILD: return list.first();
    case PX_WAIT_BY_PID: return list.firstWithKey(value);
    default:
      return list.firstMatching([&](const PosixProcess& child) { return child.matches(kind, value); });
  }
}

bool PosixProcess::wait(const Ref<InMsg>& request, uint32_t kind, uint64_t value, uint64_t options) {
  MonLock lock(monitor_);
  if (kind == PX_WAIT_BY_GROUP && value == 0) value = groupId();
  if (Ref<PosixProcess> zombie = firstMatching(zombies_, kind, value)) {
    if (!(options & PX_WAIT_OPT_NOWAIT)) zombies_.remove(zombie->pid(), zombie.get());
    StatusRecord record = zombie->statusRecord();
    answer(request, PX_RESULT_DONE, &record);
    return true;
  }
  if (!(options & PX_WAIT_OPT_NOHANG) && firstMatching(children_, kind, value)) {
    if (waitEntries_->count() >= kMaxQueuedWaits) {
      answer(request, PX_RESULT_FAILED, nullptr);
      return true;
    }
    waitEntries_->append(new WaitEntry{request, kind, 0, value, 0});
    return true;  // answered by childExited() or failWaiters()
  }
  answer(request, PX_RESULT_NO_CHILD, nullptr);
  return true;
}

void PosixProcess::failWaiters(uint32_t status) {
  MonLock lock(monitor_);
  while (waitEntries_->count() > 0) {
    WaitEntry* entry = waitEntries_->get(0);
    waitEntries_->removeAt(0);
    answerKept(entry->request, status, nullptr);
    delete entry;
  }
}

void PosixProcess::childExited(const Ref<PosixProcess>& child) {
  StatusRecord record = child->statusRecord();
  {
    MonLock lock(monitor_);
    children_.remove(child->pid(), child.get());
    // Every child's end drops the memory handed over at this process's own creation.
    sharedMemory_.reset();
    // An ended program collects nothing: its child's end is not kept.
    if (terminated()) return;
    bool collected = false;
    for (uint64_t i = 0; i < waitEntries_->count(); ++i) {
      WaitEntry* entry = waitEntries_->get(i);
      if (!entryMatches(*entry, *child)) continue;
      waitEntries_->removeAt(i);
      answerKept(entry->request, PX_RESULT_DONE, &record);
      delete entry;
      collected = true;
      break;
    }
    if (!collected) zombies_.append(child->pid(), child);
    if (children_.count() == 0 && zombies_.count() == 0) failWaiters(PX_RESULT_NO_CHILD);
  }
  signal(child, PX_SIG_CHILD, &record);
}
