#include "fifo/posix_fifo_svc.h"

#include "platform/object.h"

Ref<PosixFifoSvc> PosixFifoSvc::create(const Ref<PosixFifoBase>& end) {
  if (!end) return nullptr;
  return new PosixFifoSvc(end);
}

Ref<String> PosixFifoSvc::name() { return String::create("PosixFifo"); }

bool PosixFifoSvc::handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret,
                          uint64_t /*value*/, Ref<Object>* /*extra*/) {
  if (!in || !out || !ret) return true;
  Ref<PosixFifoBase> end = GcProxy::lockWeakRef(end_);
  if (!end) {
    *ret = kAnswerEndGone;
    return true;
  }
  switch (in->code()) {
    case kCommandMoreData: {
      // An end without a buffer can give no more data.
      const Ref<Fifo>& fifo = end->fifo();
      *ret = fifo && !fifo->eof() ? 1 : 0;
      break;
    }
    case kCommandStatus: *ret = end->status(); break;
    default: *ret = kAnswerUnknownCommand; break;
  }
  return true;
}
