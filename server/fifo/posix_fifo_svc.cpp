#include "fifo/posix_fifo_svc.h"

#include "fd/description_holders.h"
#include "platform/object.h"
#include "posix/wire.h"

Ref<PosixFifoSvc> PosixFifoSvc::create(const Ref<PosixFifoBase>& end,
                                       FileDescriptionServer* description) {
  if (!end) return nullptr;
  return new PosixFifoSvc(end, description);
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
    case kCommandSharedPage: sharePage(out, ret); break;
    case kCommandRecoverLock: {
      uint32_t which = 0;
      bool asked = in->read(&which, sizeof which) == sizeof which && fifo_;
      *ret = asked && fifo_->recover(which == PX_FIFO_WRITE_LOCK) ? 1 : 0;
      break;
    }
    default: *ret = kAnswerUnknownCommand; break;
  }
  return true;
}

void PosixFifoSvc::sharePage(const Ref<OutMsg>& out, uint32_t* ret) {
  *ret = 0;
  const ChnLink* link = ChnLink::served();
  if (!fifo_ || !link) return;
  if (description_.get()) {
    Ref<FileDescriptionServer> description = description_.lock();
    if (!DescriptionHolders::holds(link->peerIdentity(), description.get())) {
      *ret = PX_RESULT_NOT_HOLDER;
      return;
    }
  }
  std::lock_guard lock(holdersMutex_);
  uint32_t token = 0;
  for (const auto& [holder, held] : holders_) {
    if (holder == link) token = held;
  }
  // A link asking again gets the page again under the token it already has.
  const bool known = token != 0;
  token = fifo_->attachTo(out, link->peerPid(), token);
  if (token == 0) return;
  if (!known) holders_.emplace_back(link, token);
  uint32_t ring = static_cast<uint32_t>(fifo_->capacity());
  out->write(&token, sizeof token);
  out->write(&ring, sizeof ring);
  *ret = PX_RESULT_DONE;
}

void PosixFifoSvc::disconnect(const Ref<ChnLink>& link) {
  std::lock_guard lock(holdersMutex_);
  for (auto it = holders_.begin(); it != holders_.end(); ++it) {
    if (it->first == link.get()) {
      fifo_->releaseHolder(it->second);
      holders_.erase(it);
      return;
    }
  }
}
