#include "diag/diag_service.h"

#include <posix/diag_service.h>
#include <posix/wire.h>

#include "diag/diag_views.h"
#include "common/request_log.h"
#include "common/request_reader.h"

namespace {

void answer(const Ref<InMsg>& request, uint32_t result, Ref<OutMsg> reply = OutMsg::create()) {
  reply->setCode(result);
  request->reply(reply);
}

}  // namespace

Ref<DiagService> DiagService::create() {
  Ref<DiagService> service = new DiagService();
  service->channel_ = Chn::create(Ref<ConMan>(service.get()), String::create(PX_DIAG_SERVICE_NAME));
  return service->channel_ ? service : nullptr;
}

bool DiagService::connect(const Ref<ChnLink>& link) { return static_cast<bool>(link); }

void DiagService::disconnect(const Ref<ChnLink>& link) { RequestLog::detach(link.get()); }

void DiagService::run() {
  for (;;) {
    // Everything that has arrived joins the queues before the next request is served, so a
    // request waits for one turn of each process ahead of it, not for everything they sent.
    Ref<InMsg> request = channel_->receive(queue_.empty() ? kFlushMs : 0);
    if (!request && channel_->isClosed()) return;
    for (; request; request = channel_->hasReady() ? channel_->receive(0) : nullptr) admit(request);
    if (Ref<InMsg> next = queue_.next()) serve(next);
    flushMonitors();
  }
}

void DiagService::admit(const Ref<InMsg>& request) {
  if (request->code() != PX_DIAG_CMD_MONITOR) {
    if (!queue_.push(request)) answer(request, PX_RESULT_LIMIT);
    return;
  }
  uint64_t pid = 0;
  if (!readRequest<PX_DIAG_CMD_MONITOR>(request, &pid))
    answer(request, PX_RESULT_SHORT_REQUEST);
  else if (!RequestLog::attach(new RequestLog::Monitor(request, pid)))
    answer(request, PX_RESULT_LIMIT);
  // else kept: answered with each batch of events
}

void DiagService::serve(const Ref<InMsg>& request) {
  Ref<OutMsg> reply = OutMsg::create();
  uint32_t result = handle(request, reply);
  answer(request, result, reply);
}

uint32_t DiagService::handle(const Ref<InMsg>& request, const Ref<OutMsg>& reply) {
  // A page start the request leaves out is 0, the first page; one cut short is a short request.
  uint64_t pid = 0, first = 0;
  switch (request->code()) {
    case PX_DIAG_CMD_PROCESSES:
      return readRequest<PX_DIAG_CMD_PROCESSES>(request, &first) ? DiagViews::processes(first, reply)
                                                                 : PX_RESULT_SHORT_REQUEST;
    case PX_DIAG_CMD_PIPES:
      return readRequest<PX_DIAG_CMD_PIPES>(request, &first) ? DiagViews::pipes(first, reply)
                                                             : PX_RESULT_SHORT_REQUEST;
    case PX_DIAG_CMD_DESCRIPTORS:
      if (!readRequest<PX_DIAG_CMD_DESCRIPTORS>(request, &pid, &first)) return PX_RESULT_SHORT_REQUEST;
      return DiagViews::descriptors(pid, first, reply);
    case PX_DIAG_CMD_FIGURES: return DiagViews::figures(reply);
    default: return PX_RESULT_FAILED;
  }
}

void DiagService::flushMonitors() {
  // A reply holds the lost count, the event count, the records, then each event's string.
  constexpr size_t kReplyBytes =
      PX_WIRE_MAX_FRAME - PX_FRAME_HEADER_SIZE - sizeof(uint64_t) - sizeof(uint32_t);
  for (const Ref<RequestLog::Monitor>& monitor : RequestLog::monitors()) {
    const Ref<ChnLink>& link = monitor->request()->link();
    if (!link || link->queuedFrames() >= kQueuedBatches) continue;  // it loses, the server waits not
    uint64_t lost = 0;
    std::vector<RequestLog::Event> events = monitor->take(kBatch, kReplyBytes, &lost);
    if (events.empty() && lost == 0) continue;
    Ref<OutMsg> reply = OutMsg::create();
    reply->setCode(PX_RESULT_DONE);
    uint32_t count = static_cast<uint32_t>(events.size());
    reply->write(&lost, sizeof lost);
    reply->write(&count, sizeof count);
    for (const RequestLog::Event& event : events) reply->write(&event.record, sizeof event.record);
    for (const RequestLog::Event& event : events) {
      uint32_t length = static_cast<uint32_t>(event.text.size());
      reply->write(&length, sizeof length);
      if (length) reply->write(event.text.data(), length);
    }
    monitor->request()->reply(reply);
  }
}
