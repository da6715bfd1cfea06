// Processor exceptions: each case runs in a forked child that installs a handler, faults, and
// reports the context it was handed through a pipe before the signal ends it.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "platform/exception.h"
#include "platform/sync.h"
#include "platform/thread.h"

using Context = Definitions::Contexts::X86_64;

extern "C" const char posix_test_fault_site[];

namespace {

int g_reportFd = -1;

void reportContext(Context* context) {
  ssize_t written = write(g_reportFd, context, sizeof *context);
  (void)written;
}

// Loads a marker into every general register, then stores to address 0 at a known address.
// Done in assembly so that no sanitizer check stands in front of the fault.
[[gnu::noinline]] void storeThroughNull() {
  asm volatile(
      "movq $0x1a, %%rax\n\tmovq $0x1b, %%rbx\n\tmovq $0x1c, %%rcx\n\tmovq $0x1d, %%rdx\n\t"
      "movq $0x51, %%rsi\n\tmovq $0xd1, %%rdi\n\tmovq $0x108, %%r8\n\tmovq $0x109, %%r9\n\t"
      "movq $0x110, %%r10\n\tmovq $0x111, %%r11\n\tmovq $0x112, %%r12\n\tmovq $0x113, %%r13\n\t"
      "movq $0x114, %%r14\n\tmovq $0x115, %%r15\n\t"
      ".globl posix_test_fault_site\n"
      "posix_test_fault_site:\n\t"
      "movl $1, 0\n\t" ::
          : "rax", "rbx", "rcx", "rdx", "rsi", "rdi", "r8", "r9", "r10", "r11", "r12", "r13",
            "r14", "r15", "memory");
}

[[gnu::noinline]] void divideByZero() {
  asm volatile("xorl %%ecx, %%ecx\n\tmovl $1, %%eax\n\tcltd\n\tidivl %%ecx\n\t" ::
                   : "rax", "rcx", "rdx");
}

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

struct Outcome {
  bool reported = false;
  Context context = {};
  int status = 0;
};

// Forks a child that installs the reporting handler and runs `fault`; collects what it
// reported and how it ended (killed after 10 s at the latest).
template <class Fault>
Outcome runFaultingChild(Fault fault) {
  Outcome outcome;
  int fds[2];
  if (pipe(fds) != 0) return outcome;
  pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    g_reportFd = fds[1];
    ExceptionHandler::set(&reportContext);
    fault();
    _exit(99);
  }
  close(fds[1]);
  struct pollfd wait = {fds[0], POLLIN, 0};
  if (child > 0 && poll(&wait, 1, 10000) == 1)
    outcome.reported = read(fds[0], &outcome.context, sizeof outcome.context) ==
                       static_cast<ssize_t>(sizeof outcome.context);
  close(fds[0]);
  if (child <= 0) return outcome;
  for (int i = 0; i < 1000 && waitpid(child, &outcome.status, WNOHANG) == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  if (kill(child, SIGKILL) == 0) waitpid(child, &outcome.status, 0);
  return outcome;
}

bool diedOf(int status, int sig) { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }

TEST(ExceptionHandler, NullStoreReportsRegistersAndFaultAddressThenDies) {
  Outcome outcome = runFaultingChild(&storeThroughNull);
  ASSERT_TRUE(outcome.reported);
  const Context& c = outcome.context;
  EXPECT_EQ(c.hostSignal, SIGSEGV);
  EXPECT_EQ(c.faultAddress, 0u);
  EXPECT_EQ(c.rip, reinterpret_cast<uint64_t>(posix_test_fault_site));
  EXPECT_EQ(c.trapNumber, 14u);       // page fault
  EXPECT_NE(c.errorCode & 2, 0u);     // caused by a write
  const std::pair<uint64_t Context::*, uint64_t> registers[] = {
      {&Context::rax, 0x1a},  {&Context::rbx, 0x1b},  {&Context::rcx, 0x1c},
      {&Context::rdx, 0x1d},  {&Context::rsi, 0x51},  {&Context::rdi, 0xd1},
      {&Context::r8, 0x108},  {&Context::r9, 0x109},  {&Context::r10, 0x110},
      {&Context::r11, 0x111}, {&Context::r12, 0x112}, {&Context::r13, 0x113},
      {&Context::r14, 0x114}, {&Context::r15, 0x115}};
  for (auto& [reg, marker] : registers) EXPECT_EQ(c.*reg, marker) << std::hex << marker;
  EXPECT_NE(c.rsp, 0u);
  EXPECT_TRUE(diedOf(outcome.status, SIGSEGV)) << "status " << outcome.status;
}

TEST(ExceptionHandler, DivisionByZeroReportsTrapZeroThenDiesOfSigfpe) {
  Outcome outcome = runFaultingChild(&divideByZero);
  ASSERT_TRUE(outcome.reported);
  EXPECT_EQ(outcome.context.hostSignal, SIGFPE);
  EXPECT_EQ(outcome.context.trapNumber, 0u);
  EXPECT_TRUE(diedOf(outcome.status, SIGFPE)) << "status " << outcome.status;
}

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
