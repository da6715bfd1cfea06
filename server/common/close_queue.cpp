#include "common/close_queue.h"

#include <atomic>

using Libraries::Service::Multiplex;

namespace {

// The process-wide queue. `instanceRef` is guarded by InitCode's lock; `instancePtr` mirrors it
// for the unlocked first test of closeLater. A queue once made is kept alive by its own thread
// (the thread holds its Exec until run returns), so the mirrored pointer never dangles.
Ref<SvcCloseQueueObj> instanceRef;
std::atomic<SvcCloseQueueObj*> instancePtr{nullptr};

}  // namespace

SvcCloseQueueObj::SvcCloseQueueObj() : sem_(Sem::create(0)), queue_(MultiplexQueue::create()) {}

Ref<SvcCloseQueueObj> SvcCloseQueueObj::create() { return new SvcCloseQueueObj(); }

bool SvcCloseQueueObj::start() {
  Ref<Thd> thread = Thd::create(Ref<Exec>(this));
  if (!thread) return false;
  thread->setName("SvcCloseQueue");
  return thread->start();
}

void SvcCloseQueueObj::push(Ref<Multiplex> multiplex) {
  queue_->enqueue(std::move(multiplex));
  sem_->up();
}

void SvcCloseQueueObj::run() {
  while (!Thd::cancelled()) {
    sem_->down(lingering_.empty() ? kForever : kStopMs);
    releaseStopped();
    Ref<Multiplex> multiplex = queue_->dequeue();
    if (!multiplex) continue;  // an empty wake-up is ignored
    multiplex->close();
    if (!multiplex->wait(kStopMs)) {
      lingering_.push_back(std::move(multiplex));
      continue;
    }
    multiplex.reset();  // normally the last reference: the multiplex and its services go
  }
}

void SvcCloseQueueObj::releaseStopped() {
  std::erase_if(lingering_, [](const Ref<Multiplex>& multiplex) { return multiplex->wait(0); });
}

Ref<SvcCloseQueueObj> SvcCloseQueueObj::instance() {
  InitCode::lock();
  Ref<SvcCloseQueueObj> queue = instanceRef;
  InitCode::unlock();
  return queue;
}

void SvcCloseQueueObj::releaseInstance() {
  InitCode::lock();
  Ref<SvcCloseQueueObj> queue = std::move(instanceRef);
  instanceRef.reset();
  instancePtr.store(nullptr, std::memory_order_release);
  InitCode::unlock();
}

void closeLater(Ref<Multiplex> multiplex) {
  // A multiplex that no link ever reached (a pipe end nobody connected to, most of all) stops
  // here and now when the caller is no thread of the link pool: closing it waits for nothing,
  // and none of its own threads can be running the caller. A link that arrives meanwhile is
  // shut down by the close, and the queue's thread waits for it as for any other.
  if (multiplex && !multiplex->reached() && !Multiplex::onPoolThread()) {
    multiplex->close();
    if (multiplex->wait(0)) return;
  }
  SvcCloseQueueObj* queue = instancePtr.load(std::memory_order_acquire);
  if (!queue) {
    // Double-checked creation: the test under the lock decides.
    InitCode::lock();
    queue = instancePtr.load(std::memory_order_acquire);
    if (!queue) {
      Ref<SvcCloseQueueObj> made = SvcCloseQueueObj::create();
      if (made->start()) {
        instanceRef = made;
        queue = made.get();
        instancePtr.store(queue, std::memory_order_release);
      }
    }
    InitCode::unlock();
  }
  // Without a thread the multiplex cannot be stopped later; it is released here and its own
  // destructor closes it.
  if (queue) queue->push(std::move(multiplex));
}
