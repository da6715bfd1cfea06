// Reference-counted objects, strong and weak references.
//
// Every object of the system derives from Object and is held through Ref<T>. Objects start
// with a strong count of 0: the first Ref takes it to 1, and the object is destroyed when the
// last Ref goes. WeakRef<T> holds the object's GcProxy instead; GcProxy::lockWeakRef turns it
// back into a Ref only while the strong count is above zero, so a dying object is never
// resurrected.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <type_traits>
#include <utility>

class GcProxy;
template <class T> class Ref;
template <class T> class WeakRef;

// The reference-counting interface. Interfaces that objects implement derive virtually from it
// so that a Ref to the interface can hold the object.
class RefCount {
 public:
  virtual void addRef() const noexcept = 0;
  virtual void release() const noexcept = 0;
  // The proxy weak references resolve through; made on first use.
  virtual GcProxy* gcProxy() const = 0;

 protected:
  virtual ~RefCount() = default;
};

class Object : public virtual RefCount {
 public:
  void addRef() const noexcept override;
  void release() const noexcept override;
  GcProxy* gcProxy() const override;

  // Holds the object alive while a constructor hands `this` out: a Ref taken and dropped by a
  // callee during construction must not destroy the half-built object. unlockRef never deletes.
  void lockRef() const noexcept { count_.fetch_add(1, std::memory_order_relaxed); }
  void unlockRef() const noexcept { count_.fetch_sub(1, std::memory_order_acq_rel); }

  // The current strong count (tests and diagnostics only).
  uint32_t strongCount() const noexcept { return count_.load(std::memory_order_acquire); }

  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

 protected:
  Object() = default;
  ~Object() override;

 private:
  friend class GcProxy;
  mutable std::atomic<uint32_t> count_{0};
  mutable std::atomic<GcProxy*> proxy_{nullptr};
};

// The shared, separately counted cell between an object and its weak references. The object
// detaches itself in its destructor; `mutex_` guards `target_` so that a resolving thread never
// reads the count of an object whose memory is being freed.
class GcProxy {
 public:
  explicit GcProxy(const Object* target) : target_(target) {}

  void addRef() noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  // Takes one strong reference on the target if it is still alive (strong count above zero).
  bool tryAcquire() noexcept;
  // Called once by the dying object.
  void detach() noexcept;

  template <class T>
  static Ref<T> lockWeakRef(const WeakRef<T>& weak);

 private:
  std::mutex mutex_;
  const Object* target_;  // guarded by mutex_; null once the object is gone
  std::atomic<uint32_t> refs_{1};  // the object's own reference plus one per WeakRef
};

template <class T>
class Ref {
 public:
  Ref() noexcept = default;
  Ref(std::nullptr_t) noexcept {}
  Ref(T* p) noexcept : p_(p) { if (p_) p_->addRef(); }
  Ref(const Ref& o) noexcept : p_(o.p_) { if (p_) p_->addRef(); }
  Ref(Ref&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ref(const Ref<U>& o) noexcept : p_(o.get()) { if (p_) p_->addRef(); }
  template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
  Ref(Ref<U>&& o) noexcept : p_(o.detach()) {}
  ~Ref() {
    // Ref calls the count by name, so a class that declares an addRef or release of its own
    // hides the count's and its Refs would call that one instead (and never free the object).
    // The count's are const and noexcept; a member that is not fails here.
    static_assert(requires(const T& t) {
      { t.addRef() } noexcept;
      { t.release() } noexcept;
    }, "T hides the reference count's addRef or release");
    if (p_) p_->release();
  }

  Ref& operator=(Ref o) noexcept { std::swap(p_, o.p_); return *this; }

  // Wraps a pointer whose strong reference the caller already holds.
  static Ref adopt(T* p) noexcept { Ref r; r.p_ = p; return r; }
  // Gives up ownership without releasing.
  T* detach() noexcept { return std::exchange(p_, nullptr); }

  T* get() const noexcept { return p_; }
  T* operator->() const noexcept { return p_; }
  T& operator*() const noexcept { return *p_; }
  explicit operator bool() const noexcept { return p_ != nullptr; }
  void reset() noexcept { Ref().swap(*this); }
  void swap(Ref& o) noexcept { std::swap(p_, o.p_); }

  template <class U> bool operator==(const Ref<U>& o) const noexcept { return p_ == o.get(); }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }

 private:
  T* p_ = nullptr;
};

template <class T>
class WeakRef {
 public:
  WeakRef() noexcept = default;
  WeakRef(std::nullptr_t) noexcept {}
  WeakRef(T* p) : p_(p), proxy_(p ? p->gcProxy() : nullptr) { if (proxy_) proxy_->addRef(); }
  WeakRef(const Ref<T>& r) : WeakRef(r.get()) {}
  WeakRef(const WeakRef& o) noexcept : p_(o.p_), proxy_(o.proxy_) { if (proxy_) proxy_->addRef(); }
  WeakRef(WeakRef&& o) noexcept
      : p_(std::exchange(o.p_, nullptr)), proxy_(std::exchange(o.proxy_, nullptr)) {}
  ~WeakRef() { if (proxy_) proxy_->release(); }
  WeakRef& operator=(WeakRef o) noexcept {
    std::swap(p_, o.p_);
    std::swap(proxy_, o.proxy_);
    return *this;
  }

  // A strong reference, or null when the object has died.
  Ref<T> lock() const noexcept {
    if (proxy_ && proxy_->tryAcquire()) return Ref<T>::adopt(p_);
    return nullptr;
  }
  // The stored pointer: tells whether the reference was ever set, not whether the object lives.
  T* get() const noexcept { return p_; }
  bool operator==(const WeakRef& o) const noexcept { return p_ == o.p_; }
  bool operator==(std::nullptr_t) const noexcept { return p_ == nullptr; }

 private:
  T* p_ = nullptr;
  GcProxy* proxy_ = nullptr;
};

template <class T>
Ref<T> GcProxy::lockWeakRef(const WeakRef<T>& weak) {
  return weak.lock();
}
