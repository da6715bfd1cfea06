#include "fifo/posix_fifo.h"

#include "fifo/fifo_log.h"
#include "platform/chn.h"

namespace posix {
LogModule fifoLog;
}

PosixFifoBase::~PosixFifoBase() {
  fifo_.reset();
  mon_.reset();
}

std::vector<uint64_t> PosixFifoBase::callers() const {
  std::lock_guard lock(callersMutex_);
  return callers_;
}

void PosixFifoBase::addCaller(uint64_t pid) const {
  std::lock_guard lock(callersMutex_);
  callers_.push_back(pid);
}

void PosixFifoBase::removeCaller(uint64_t pid) const {
  std::lock_guard lock(callersMutex_);
  for (auto it = callers_.begin(); it != callers_.end(); ++it) {
    if (*it == pid) {
      callers_.erase(it);
      break;
    }
  }
}

PosixFifoBase::CallerScope::CallerScope(const PosixFifoBase& end)
    : end_(end), pid_(ChnLink::servedPeerPid()) {
  end_.addCaller(pid_);
}

PosixFifoBase::CallerScope::~CallerScope() { end_.removeCaller(pid_); }

// A wait's own notes: the page's waiter count it is counted in, the lock holder it waited for
// (kept for the next call, which looks at a lock that stays with one holder), and the pid
// listed among the callers while it waits.
Fifo::Armed PosixFifoBase::armedOf(const Interfaces::StreamWait& wait) {
  Fifo::Armed armed;
  armed.word = wait.word;
  armed.seen = wait.seen;
  armed.waiters = reinterpret_cast<uint32_t*>(wait.own[0]);
  armed.lockHolder = static_cast<uint32_t>(wait.own[1]);
  return armed;
}

bool PosixFifoBase::enterNow(Interfaces::StreamWait* wait) {
  if (mon_->enter(0)) return true;
  // Another call of this end is inside its copy, which takes microseconds.
  wait->armed = true;
  wait->word = nullptr;
  wait->lookAgainMs = 1;
  return false;
}

void PosixFifoBase::handOut(const Fifo::Armed& armed, Interfaces::StreamWait* wait) {
  wait->own[1] = armed.lockHolder;
  if (armed.word == nullptr) return;
  wait->armed = true;
  wait->word = armed.word;
  wait->seen = armed.seen;
  // A lock is held for a copy: one that stays with its holder is looked at again soon.
  wait->lookAgainMs = armed.lockHolder != 0 ? posix::PipeRing::kStuckMs : kForever;
  wait->own[0] = reinterpret_cast<uint64_t>(armed.waiters);
  wait->own[2] = ChnLink::servedPeerPid();
  addCaller(wait->own[2]);
}

uint64_t PosixFifoBase::moveNow(bool writing, Interfaces::MemDesc buffer, uint64_t size,
                                Interfaces::StreamWait* wait) {
  setStatus(kStatusOk);
  Fifo::Armed armed = armedOf(*wait);
  if (closed_.load(std::memory_order_acquire)) {
    setStatus(writing ? kStatusNotWritable : kStatusNotReadable);
    return 0;
  }
  if (buffer.kind != Interfaces::MemDesc::kDirect || !mon_ || !fifo_) return 0;
  if (size > buffer.size) size = buffer.size;  // never past the memory the caller lent
  if (!enterNow(wait)) return 0;
  uint64_t n = writing ? fifo_->writeNow(buffer.pointer(), size, &armed)
                       : fifo_->readNow(buffer.pointer(), size, &armed);
  handOut(armed, wait);
  if (n == 0 && !wait->armed) {
    if (!writing && fifo_->eof()) setStatus(kStatusEof);
    if (writing && fifo_->broken()) setStatus(kStatusBroken);
  }
  mon_->leave();
  return n;
}

void PosixFifoBase::endWait(Interfaces::StreamWait* wait) {
  if (!wait->armed) return;
  wait->armed = false;
  if (wait->word == nullptr) return;
  fifo_->disarm(armedOf(*wait));
  removeCaller(wait->own[2]);
  wait->word = nullptr;
}

uint64_t PosixFifoRead::read(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) {
  POSIX_ASSERT(mon_ != 0, "PosixFifoRead::read");
  POSIX_ASSERT(fifo_ != 0, "PosixFifoRead::read");
  setStatus(kStatusOk);
  if (closed_.load(std::memory_order_acquire)) {
    setStatus(kStatusNotReadable);
    return 0;
  }
  if (buffer.kind != Interfaces::MemDesc::kDirect || !mon_ || !fifo_) return 0;
  if (size > buffer.size) size = buffer.size;  // never past the memory the caller lent
  CallerScope caller(*this);
  if (!mon_->enter(timeoutMs)) {
    setStatus(kStatusTimedOut);
    return 0;
  }
  if (!fifo_->waitRead(1, timeoutMs)) {
    setStatus(kStatusTimedOut);
    mon_->leave();
    return 0;
  }
  uint64_t n = fifo_->readMax(buffer.pointer(), size);
  if (n == 0 && fifo_->eof()) setStatus(kStatusEof);
  mon_->leave();
  return n;
}

uint64_t PosixFifoRead::write(Interfaces::MemDesc, uint64_t, uint32_t) {
  setStatus(kStatusNotWritable);
  return 0;
}

uint64_t PosixFifoRead::readOrWait(Interfaces::MemDesc buffer, uint64_t size,
                                   Interfaces::StreamWait* wait) {
  return moveNow(false, buffer, size, wait);
}

uint64_t PosixFifoRead::writeOrWait(Interfaces::MemDesc, uint64_t, Interfaces::StreamWait*) {
  setStatus(kStatusNotWritable);
  return 0;
}

void PosixFifoRead::closeEnd() {
  closed_.store(true, std::memory_order_release);
  if (fifo_) fifo_->setBroken();
}

PosixFifoRead::~PosixFifoRead() { closeEnd(); }

uint64_t PosixFifoWrite::read(Interfaces::MemDesc, uint64_t, uint32_t) {
  setStatus(kStatusNotReadable);
  return 0;
}

uint64_t PosixFifoWrite::write(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) {
  POSIX_ASSERT(mon_ != 0, "PosixFifoWrite::write");
  POSIX_ASSERT(fifo_ != 0, "PosixFifoWrite::write");
  setStatus(kStatusOk);
  if (closed_.load(std::memory_order_acquire)) {
    setStatus(kStatusNotWritable);
    return 0;
  }
  if (buffer.kind != Interfaces::MemDesc::kDirect || !mon_ || !fifo_) return 0;
  if (size > buffer.size) size = buffer.size;
  CallerScope caller(*this);
  if (!mon_->enter(timeoutMs)) {
    setStatus(kStatusTimedOut);
    return 0;
  }
  uint64_t n = fifo_->write(buffer.pointer(), size, timeoutMs);
  // A write that timed out with nothing written into an intact Fifo keeps status 0.
  if (n == 0 && fifo_->broken()) setStatus(kStatusBroken);
  mon_->leave();
  return n;
}

uint64_t PosixFifoWrite::readOrWait(Interfaces::MemDesc, uint64_t, Interfaces::StreamWait*) {
  setStatus(kStatusNotReadable);
  return 0;
}

uint64_t PosixFifoWrite::writeOrWait(Interfaces::MemDesc buffer, uint64_t size,
                                     Interfaces::StreamWait* wait) {
  return moveNow(true, buffer, size, wait);
}

void PosixFifoWrite::closeEnd() {
  closed_.store(true, std::memory_order_release);
  if (fifo_) fifo_->setEof();
}

PosixFifoWrite::~PosixFifoWrite() { closeEnd(); }
