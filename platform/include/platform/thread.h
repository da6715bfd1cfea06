// Threads: Exec is the body a thread runs, Thd the thread itself (a detached pthread).
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "platform/object.h"
#include "platform/string.h"

class Exec : public virtual RefCount {
 public:
  virtual void run() = 0;
};

class Thd : public Object {
 public:
  // A thread that will run `body`; it starts only with start().
  static Ref<Thd> create(Ref<Exec> body);
  // At most 15 characters reach the kernel; longer names are cut.
  void setName(const char* name);
  // The size of the thread's stack, set before start(); 0 (the default) keeps the host's.
  void setStackSize(uint64_t bytes) { stackSize_ = bytes; }
  // Starts the thread. The thread holds the Thd and the Exec until run() returns.
  bool start();
  // Asks the thread to stop at its next check of cancelled().
  void cancel() { cancelled_.store(true, std::memory_order_release); }
  // Waits until run() has returned; false when the time-out ended first.
  bool join(uint32_t timeoutMs);

  // The calling thread's Linux thread id.
  static uint64_t current();
  // True when the calling thread's Thd was cancelled.
  static bool cancelled();
  // The calling thread's name.
  static Ref<String> name();

 private:
  explicit Thd(Ref<Exec> body) : body_(std::move(body)) {}
  static void* entry(void* self);

  Ref<Exec> body_;
  char name_[16] = {};
  uint64_t stackSize_ = 0;
  std::atomic<bool> started_{false};
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> finished_{false};
};
