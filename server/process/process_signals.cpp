// Signal delivery to a process record and the process's own wait for signals.
//
// Only kill (9), stop (18) and continue (17) act on the platform process; every other signal is
// handed to the process's signal waiter or remembered in its pending mask until it asks. The
// host signals go to the process of the record's identity only, and to a started program's host
// process group too, so that what it started with the host's own fork (a shell's `cmd &`) goes
// with it.
#include <posix/posix_service.h>

#include <cerrno>

#include "common/request_log.h"
#include "platform/chn.h"
#include "platform/error.h"
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
    if (sender) fallback.pid = sender->pid();
    record = &fallback;
  }
  if (signum >= PX_SIG_COUNT) return PX_RESULT_BAD_SIGNAL;
  switch (signum) {
    case PX_SIG_PROBE: return PX_RESULT_DONE;
    case PX_SIG_KILL: return hostSignal(HostSignal::Kill);
    case PX_SIG_STOP: return hostSignal(HostSignal::Stop);
    case PX_SIG_CONT: {
      uint32_t result = hostSignal(HostSignal::Cont);
      if (result != PX_RESULT_DONE) return result;
      break;  // a waiting process also learns that it was continued
    }
    default: break;
  }
  MonLock lock(monitor_);
  sendSignalLocked(signum, *record, placement);
  return PX_RESULT_DONE;
}

uint32_t PosixProcess::hostSignal(HostSignal what) {
  // Under the monitor the agent marks the program ended before it collects it: until then the
  // pid, and the group id it leads, are still the program's own.
  MonLock lock(monitor_);
  if (terminated()) return PX_RESULT_NO_PROCESS;
  if (Proc::send(identity_, what, started_)) return PX_RESULT_DONE;
  return Error::get() == ESRCH ? PX_RESULT_NO_PROCESS : PX_RESULT_FAILED;
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
  RequestLog::noteLate(PX_DIAG_PROCESS_SERVICE, waiter, signum);
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
