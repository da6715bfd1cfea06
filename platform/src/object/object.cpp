#include "platform/object.h"

void Object::addRef() const noexcept { count_.fetch_add(1, std::memory_order_relaxed); }

void Object::release() const noexcept {
  if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

GcProxy* Object::gcProxy() const {
  GcProxy* proxy = proxy_.load(std::memory_order_acquire);
  if (proxy) return proxy;
  auto* made = new GcProxy(this);
  if (proxy_.compare_exchange_strong(proxy, made, std::memory_order_acq_rel)) return made;
  made->release();  // another thread installed one first
  return proxy;
}

Object::~Object() {
  if (GcProxy* proxy = proxy_.load(std::memory_order_acquire)) {
    proxy->detach();
    proxy->release();
  }
}

bool GcProxy::tryAcquire() noexcept {
  std::lock_guard lock(mutex_);
  if (!target_) return false;
  uint32_t count = target_->count_.load(std::memory_order_acquire);
  while (count != 0) {
    if (target_->count_.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel))
      return true;
  }
  return false;
}

void GcProxy::detach() noexcept {
  std::lock_guard lock(mutex_);
  target_ = nullptr;
}
