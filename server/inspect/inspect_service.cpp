#include "inspect/inspect_service.h"

#include <posix/inspect_service.h>
#include <posix/wire.h>

#include "inspect/inspect_views.h"
#include "inspect/request_log.h"

Ref<InspectService> InspectService::create() {
  Ref<InspectService> service = new InspectService();
  service->channel_ = Chn::create(Ref<ConMan>(service.get()), String::create(PX_INSPECT_SERVICE_NAME));
  return service->channel_ ? service : nullptr;
}

bool InspectService::connect(const Ref<ChnLink>& link) { return static_cast<bool>(link); }

void InspectService::disconnect(const Ref<ChnLink>& link) { RequestLog::detach(link.get()); }

void InspectService::run() {
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

bool InspectService::handle(const Ref<InMsg>& request, const Ref<OutMsg>& reply, uint32_t* result) {
  switch (request->code()) {
    case PX_INSPECT_CMD_PROCESSES: *result = InspectViews::processes(reply); return true;
    case PX_INSPECT_CMD_PIPES: *result = InspectViews::pipes(reply); return true;
    case PX_INSPECT_CMD_FIGURES: *result = InspectViews::figures(reply); return true;
    case PX_INSPECT_CMD_DESCRIPTORS:
    case PX_INSPECT_CMD_MONITOR: {
      uint64_t pid = 0;
      if (request->read(&pid, sizeof pid) != sizeof pid) {
        *result = PX_RESULT_SHORT_REQUEST;
        return true;
      }
      if (request->code() == PX_INSPECT_CMD_DESCRIPTORS) {
        *result = InspectViews::descriptors(pid, reply);
        return true;
      }
      RequestLog::attach(new RequestLog::Monitor(request, pid));
      return false;
    }
    default: return true;
  }
}

void InspectService::flushMonitors() {
  for (const Ref<RequestLog::Monitor>& monitor : RequestLog::monitors()) {
    const Ref<ChnLink>& link = monitor->request()->link();
    if (!link || link->queuedFrames() >= kQueuedBatches) continue;  // it loses, the server waits not
    uint64_t lost = 0;
    std::vector<px_inspect_event> events = monitor->take(kBatch, &lost);
    if (events.empty() && lost == 0) continue;
    Ref<OutMsg> reply = OutMsg::create();
    reply->setCode(PX_RESULT_DONE);
    uint32_t count = static_cast<uint32_t>(events.size());
    reply->write(&lost, sizeof lost);
    reply->write(&count, sizeof count);
    if (count) reply->write(events.data(), count * sizeof(px_inspect_event));
    monitor->request()->reply(reply);
  }
}
