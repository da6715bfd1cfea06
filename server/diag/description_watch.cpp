#include "diag/description_watch.h"

#include <posix/diag_service.h>

#include "adapters/posix_resizable_service.h"
#include "adapters/posix_seekable_service.h"
#include "common/request_log.h"
#include "fd/posix_fs_item_service.h"
#include "fd/posix_socket_service.h"
#include "fifo/posix_fifo_svc.h"
#include "platform/multiplex.h"
#include "platform/nodes.h"

namespace DescriptionWatch {

namespace {

// Which of the log's services a bound service is; asked once per link.
uint32_t classify(Interfaces::Service& service) {
  if (dynamic_cast<Services::Nodes::Resolvers::Stream*>(&service)) return PX_DIAG_STREAM_SERVICE;
  if (dynamic_cast<PosixSeekableService*>(&service)) return PX_DIAG_SEEKABLE_SERVICE;
  if (dynamic_cast<PosixResizableService*>(&service)) return PX_DIAG_RESIZABLE_SERVICE;
  if (dynamic_cast<PosixFSItemService*>(&service)) return PX_DIAG_ITEM_SERVICE;
  if (dynamic_cast<PosixFifoSvc*>(&service)) return PX_DIAG_FIFO_STATUS_SERVICE;
  if (dynamic_cast<PosixSocketService*>(&service)) return PX_DIAG_SOCKET_SERVICE;
  return PX_DIAG_SERVICES;  // none the log knows: not noted
}

void note(uint32_t kind, const Ref<InMsg>& request, bool answered, uint32_t result,
          std::chrono::steady_clock::time_point began) {
  RequestLog::note(kind, request, answered ? result : PX_DIAG_KEPT, began);
}

}  // namespace

void start() { Libraries::Service::Multiplex::observe({&classify, &note}); }

}  // namespace DescriptionWatch
