#include "platform/thread.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "platform/exception.h"

namespace {
thread_local Thd* t_current = nullptr;
}

Ref<Thd> Thd::create(Ref<Exec> body) {
  if (!body) return nullptr;
  return new Thd(std::move(body));
}

void Thd::setName(const char* name) {
  std::strncpy(name_, name ? name : "", sizeof name_ - 1);
  name_[sizeof name_ - 1] = 0;
}

bool Thd::start() {
  if (started_.exchange(true)) return false;
  addRef();  // the running thread's own reference, dropped when run() returns
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  if (stackSize_ != 0) pthread_attr_setstacksize(&attr, static_cast<size_t>(stackSize_));
  pthread_t thread;
  int rc = pthread_create(&thread, &attr, &Thd::entry, this);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    finished_.store(true, std::memory_order_release);
    release();
    return false;
  }
  return true;
}

void* Thd::entry(void* self) {
  auto* thd = static_cast<Thd*>(self);
  t_current = thd;
  // A thread that overflows its stack must still reach the exception handler.
  ExceptionHandler::prepareThread();
  if (thd->name_[0]) pthread_setname_np(pthread_self(), thd->name_);
  Ref<Exec> body = thd->body_;
  body->run();
  body.reset();
  ExceptionHandler::finishThread();
  t_current = nullptr;
  thd->finished_.store(true, std::memory_order_release);
  thd->release();
  return nullptr;
}

bool Thd::join(uint32_t timeoutMs) {
  // Polled: the thread is detached so that nobody has to join it in normal operation.
  for (uint64_t waited = 0; !finished_.load(std::memory_order_acquire); waited += 1) {
    if (timeoutMs != 0xFFFFFFFFu && waited >= timeoutMs) return false;
    struct timespec ms = {0, 1000000};
    nanosleep(&ms, nullptr);
  }
  return true;
}

uint64_t Thd::current() {
  // Cached: monitors ask on every enter and leave.
  thread_local const uint64_t tid = static_cast<uint64_t>(syscall(SYS_gettid));
  return tid;
}

bool Thd::cancelled() {
  return t_current && t_current->cancelled_.load(std::memory_order_acquire);
}

Ref<String> Thd::name() {
  char name[16] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return String::create(name);
}
