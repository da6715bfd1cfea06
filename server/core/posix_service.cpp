#include "core/posix_service.h"

#include <posix/posix_service.h>

#include "core/service_log.h"

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
  POSIX_ASSERT(link, "link != 0", 56, "PosixService::connect");
  if (!link) return false;  // the hosted channel never passes one; nothing to bind
  uint64_t pid = link->peerPid();
  Ref<PosixProcess> process = PosixProcess::find(pid);
  if (!process) process = PosixProcess::createEntry(pid);
  link->setTag(processes_->add(process));
  return true;
}

void PosixService::disconnect(const Ref<ChnLink>& link) {
  POSIX_ASSERT(link, "link != 0", 66, "PosixService::disconnect");
  if (link) processes_->remove(link->tag());
}

Ref<PosixProcess> PosixService::findByPid(uint64_t pid) const {
  return processes_->find([pid](const Ref<PosixProcess>& process) { return process->pid() == pid; });
}

void PosixService::mainLoop() {
  // The result code outlives a request on purpose: a request that sets none (abortWaits) is
  // answered with the previous request's code.
  uint32_t resultCode = PX_RESULT_FAILED;
  while (Ref<InMsg> request = chn_->receive()) {
    Ref<OutMsg> reply = OutMsg::create();
    Ref<Object> slot;
    if (dispatch(request, reply, &resultCode, 0, &slot)) {
      reply->setCode(resultCode);
      request->reply(reply);
    }
  }
}
