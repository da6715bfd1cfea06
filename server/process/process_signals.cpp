// Signal delivery to a process record and the process's own wait for signals.
//
// Only kill (9), stop (18) and continue (17) act on the platform process; every other signal is
// handed to the process's signal waiter or remembered in its pending mask until it asks.
#include <posix/posix_service.h>

#include "platform/chn.h"
#include "process/posix_process.h"

namespace {

// A kept signal request whose client has gone can never be answered: a signal handed to it
// would be lost, so such a waiter counts as none.
bool waiterAlive(const Ref<InMsg>& waiter) {
  return waiter && waiter->link() && waiter->link()->isOpen();
}

}  // namespace

uint32_t PosixProcess::signal(const Ref<PosixProcess>& sender, uint32_t signum,
                              const StatusRecord* record, RecordPlacement placement) {
  StatusRecord fallback{};
  if (!record) {
    fallback.signal = signum;
    fallback.code = 0xFFFFFFFFu;
    if (sender) {
      if (Ref<ProcInfo> info = Proc::info(sender->pid_)) fallback.pid = info->pid();
    }
    record = &fallback;
  }
  if (signum >= PX_SIG_COUNT) return PX_RESULT_BAD_SIGNAL;
  switch (signum) {
    case PX_SIG_PROBE: return PX_RESULT_DONE;
    case PX_SIG_KILL: return Proc::terminate(pid_) ? PX_RESULT_DONE : PX_RESULT_FAILED;
    case PX_SIG_STOP: return Proc::stop(pid_) ? PX_RESULT_DONE : PX_RESULT_FAILED;
    case PX_SIG_CONT:
      if (!Proc::cont(pid_)) return PX_RESULT_FAILED;
      break;  // a waiting process also learns that it was continued
    default: break;
  }
  MonLock lock(monitor_);
  sendSignalLocked(signum, *record, placement);
  return PX_RESULT_DONE;
}

void PosixProcess::sendSignalLocked(uint32_t signum, const StatusRecord& record,
                                    RecordPlacement placement) {
  if (!waiterAlive(signalWaiter_)) {
    signalWaiter_.reset();
    pendingSignals_ |= 1u << (signum - 1);
    return;
  }
  Ref<OutMsg> notification = OutMsg::create();
  notification->setCode(signum);
  if (placement == RecordPlacement::Data)
    notification->write(&record, sizeof record);
  else
    notification->addBlock(PX_BLOCK_RECORD, &record, sizeof record);
  Ref<InMsg> waiter = std::move(signalWaiter_);
  waiter->reply(notification);
}

bool PosixProcess::waitSignal(const Ref<InMsg>& request) {
  MonLock lock(monitor_);
  if (signalWaiter_ && !waiterAlive(signalWaiter_)) signalWaiter_.reset();
  if (signalWaiter_) return false;
  if (pendingSignals_ == 0) {
    signalWaiter_ = request;
    return true;
  }
  // One answer per pending signal, in ascending order; the caller then answers once more.
  for (uint32_t signum = 1; signum < PX_SIG_COUNT; ++signum) {
    uint32_t bit = 1u << (signum - 1);
    if (!(pendingSignals_ & bit)) continue;
    Ref<OutMsg> notification = OutMsg::create();
    notification->setCode(signum);
    pendingSignals_ &= ~bit;
    request->reply(notification);
  }
  return false;
}
