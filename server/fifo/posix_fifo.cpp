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

PosixFifoBase::CallerScope::CallerScope(const PosixFifoBase& end)
    : end_(end), pid_(ChnLink::servedPeerPid()) {
  std::lock_guard lock(end_.callersMutex_);
  end_.callers_.push_back(pid_);
}

PosixFifoBase::CallerScope::~CallerScope() {
  std::lock_guard lock(end_.callersMutex_);
  for (auto it = end_.callers_.begin(); it != end_.callers_.end(); ++it) {
    if (*it == pid_) {
      end_.callers_.erase(it);
      break;
    }
  }
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

void PosixFifoWrite::closeEnd() {
  closed_.store(true, std::memory_order_release);
  if (fifo_) fifo_->setEof();
}

PosixFifoWrite::~PosixFifoWrite() { closeEnd(); }
