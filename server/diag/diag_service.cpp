#include "diag/diag_service.h"

#include <posix/diag_service.h>
#include <posix/wire.h>

#include "diag/diag_views.h"
#include "diag/request_log.h"

Ref<DiagService> DiagService::create() {
  Ref<DiagService> service = new DiagService();
  service->channel_ = Chn::create(Ref<ConMan>(service.get()), String::create(PX_DIAG_SERVICE_NAME));
  return service->channel_ ? service : nullptr;
}

bool DiagService::connect(const Ref<ChnLink>& link) { return static_cast<bool>(link); }

void DiagService::disconnect(const Ref<ChnLink>& link) { RequestLog::detach(link.get()); }

void DiagService::run() {
  for (;;) {
    Ref<InMsg> request = channel_->receive(kFlushMs);
    if (!request && channel_->isClosed()) return;
    if (request) {
      Ref<OutMsg> reply = OutMsg::create();
      uint32_t result = PX_RESULT_FAILED;
      if (handle(request, reply, &result)) {
        reply->setCode(result);
        request->reply(reply);
      }
    }
    flushMonitors();
  }
}

bool DiagService::handle(const Ref<InMsg>& request, const Ref<OutMsg>& reply, uint32_t* result) {
  switch (request->code()) {
    case PX_DIAG_CMD_PROCESSES: *result = DiagViews::processes(reply); return true;
    case PX_DIAG_CMD_PIPES: *result = DiagViews::pipes(reply); return true;
    case PX_DIAG_CMD_FIGURES: *result = DiagViews::figures(reply); return true;
    case PX_DIAG_CMD_DESCRIPTORS:
    case PX_DIAG_CMD_MONITOR: {
      uint64_t pid = 0;
      if (request->read(&pid, sizeof pid) != sizeof pid) {
        *result = PX_RESULT_SHORT_REQUEST;
        return true;
      }
      if (request->code() == PX_DIAG_CMD_DESCRIPTORS) {
        *result = DiagViews::descriptors(pid, reply);
        return true;
      }
      if (RequestLog::attach(new RequestLog::Monitor(request, pid))) return false;  // kept
      *result = PX_RESULT_LIMIT;
      return true;
    }
    default: return true;
  }
}

void DiagService::flushMonitors() {
  for (const Ref<RequestLog::Monitor>& monitor : RequestLog::monitors()) {
    const Ref<ChnLink>& link = monitor->request()->link();
    if (!link || link->queuedFrames() >= kQueuedBatches) continue;  // it loses, the server waits not
    uint64_t lost = 0;
    std::vector<px_diag_event> events = monitor->take(kBatch, &lost);
    if (events.empty() && lost == 0) continue;
    Ref<OutMsg> reply = OutMsg::create();
    reply->setCode(PX_RESULT_DONE);
    uint32_t count = static_cast<uint32_t>(events.size());
    reply->write(&lost, sizeof lost);
    reply->write(&count, sizeof count);
    if (count) reply->write(events.data(), count * sizeof(px_diag_event));
    monitor->request()->reply(reply);
  }
}
