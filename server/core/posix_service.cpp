#include "core/posix_service.h"

#include <posix/posix_service.h>

#include "common/service_log.h"
#include "common/request_log.h"
#include "process/process_agent.h"

namespace posix {
LogModule serviceLog;
}

PosixService::PosixService() {
  lockRef();
  processes_ = ProcessTable::create();
  chn_ = Chn::create(Ref<ConMan>(this), String::create(PX_SERVICE_NAME));
  unlockRef();
}

bool PosixService::connect(const Ref<ChnLink>& link) {
  POSIX_ASSERT(link != 0, "PosixService::connect");
  if (!link) return false;  // the hosted channel never passes one; nothing to bind
  // The platform admits only links whose peer it could identify. A record of an earlier
  // process with the same pid is never handed over: the identity includes the serial.
  const ProcIdentity& identity = link->peerIdentity();
  Ref<PosixProcess> process = PosixProcess::find(identity);
  // A program this server has just started may connect before its agent has linked it.
  if (!process) process = ProcessAgent::awaitLinked(identity);
  if (!process) process = PosixProcess::createEntry(identity, Proc::levelOfUser(link->peerUid()));
  const uint64_t tag = processes_->add(process);
  link->setTag(tag);
  if (tag != 0) process->countServiceLink(true);
  return true;
}

void PosixService::disconnect(const Ref<ChnLink>& link) {
  POSIX_ASSERT(link != 0, "PosixService::disconnect");
  if (!link) return;
  if (Ref<PosixProcess> process = processes_->get(link->tag())) process->countServiceLink(false);
  processes_->remove(link->tag());
}

Ref<PosixProcess> PosixService::findConnected(const ProcIdentity& identity) const {
  Ref<PosixProcess> process = PosixProcess::find(identity);
  return process && process->hasServiceLink() ? process : nullptr;
}

void PosixService::mainLoop() {
  // The result code outlives a request on purpose: a request that sets none (abortWaits) is
  // answered with the previous request's code.
  uint32_t resultCode = PX_RESULT_FAILED;
  for (;;) {
    // With broadcasts waiting, only the requests there are now; then a round of their slices
    // once the requests read in one pass over the links have all been served.
    const bool waitForever = broadcasts_.idle();
    Ref<InMsg> request = chn_->receive(waitForever ? kForever : 0);
    if (!request && (waitForever || chn_->isClosed())) return;
    if (request) {
      const auto began = RequestLog::Clock::now();
      Ref<OutMsg> reply = OutMsg::create();
      Ref<Object> slot;
      bool answered = dispatch(request, reply, &resultCode, 0, &slot);
      if (answered) {
        reply->setCode(resultCode);
        request->reply(reply);
      }
      RequestLog::note(PX_DIAG_PROCESS_SERVICE, request, answered ? resultCode : PX_DIAG_KEPT, began);
    }
    if (!chn_->hasReady()) broadcasts_.runRound();
  }
}
