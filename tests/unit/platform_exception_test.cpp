// Processor exceptions that only a unit test can provoke: a platform thread that runs out of
// stack still reaches the handler. (The context a fault hands to the handler, every register
// included, and a division by zero: the crash dump tests.)
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>

#include "platform/exception.h"
#include "platform/sync.h"
#include "platform/thread.h"

using Context = Definitions::Contexts::X86_64;

namespace {

volatile uint64_t g_depthLimit = UINT64_MAX;

[[gnu::noinline]] uint64_t recurse(uint64_t depth) {
  volatile char frame[512];
  frame[0] = static_cast<char>(depth);
  if (depth < g_depthLimit) return recurse(depth + 1) + frame[0];
  return frame[0];
}

class Overflow : public Object, public Exec {
 public:
  void run() override { recurse(0); }
};

// Says on standard error whether the fault lay next to the stack pointer, as it does when a
// stack runs out.
void reportOverflow(Context* context) {
  uint64_t distance = context->rsp > context->faultAddress ? context->rsp - context->faultAddress
                                                           : context->faultAddress - context->rsp;
  const char* text = context->hostSignal == SIGSEGV && distance < 65536
                         ? "overflow reached the handler\n"
                         : "unexpected fault\n";
  ssize_t written = write(STDERR_FILENO, text, strlen(text));
  (void)written;
}

void overflowOnAPlatformThread() {
  struct rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  ExceptionHandler::set(&reportOverflow);
  Ref<Thd> thread = Thd::create(new Overflow());
  if (!thread || !thread->start()) _exit(98);
  thread->join(kForever);
  _exit(99);
}

// The handler can only run on the thread's alternate stack, which every platform thread has.
TEST(ExceptionHandler, StackOverflowOfAPlatformThreadStillReachesTheHandler) {
  // Re-executed rather than forked: the child starts a thread, which a fork of a process
  // with other threads cannot do safely.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(overflowOnAPlatformThread(), ::testing::KilledBySignal(SIGSEGV),
              "overflow reached the handler");
}

}  // namespace
