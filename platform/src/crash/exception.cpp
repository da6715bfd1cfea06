// Processor exceptions: SIGSEGV, SIGBUS, SIGILL and SIGFPE reach the installed handler with the
// faulting thread's registers; afterwards the signal's default action ends the process.
#include "platform/exception.h"

#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/proc.h"

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE};
// Room for the handler and the crash dump it writes, also under the sanitizers.
constexpr size_t kAltStackSize = 128 * 1024;

std::atomic<ExceptionHandlerFn> g_handler{nullptr};

// The alternate stack this thread got from us, and the one it had before (restored when the
// thread ends, so that a runtime that set one up can take its own back). Thread-local: only
// the owning thread touches it.
struct AltStack {
  void* mapping = nullptr;  // a guard page, then the stack
  size_t mappingSize = 0;
  stack_t previous = {};
};
thread_local AltStack t_altStack;

size_t pageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

size_t altStackSize() {
  size_t size = kAltStackSize;
  long minimum = sysconf(_SC_MINSIGSTKSZ);
  // Never less than a few times what the kernel needs for one signal frame on this machine.
  if (minimum > 0 && static_cast<size_t>(minimum) * 4 > size)
    size = static_cast<size_t>(minimum) * 4;
  size_t page = pageSize();
  return (size + page - 1) / page * page;
}

void installAltStack() {
  if (t_altStack.mapping) return;
  stack_t current;
  if (sigaltstack(nullptr, &current) != 0) return;
  size_t size = altStackSize();
  if (!(current.ss_flags & SS_DISABLE) && current.ss_size >= size) return;  // one is there already

  size_t guard = pageSize();
  void* mapping = mmap(nullptr, size + guard, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                       -1, 0);
  if (mapping == MAP_FAILED) return;
  // The lowest page stays inaccessible: a handler that overruns the stack faults instead of
  // overwriting whatever lies below.
  mprotect(mapping, guard, PROT_NONE);
  stack_t stack = {};
  stack.ss_sp = static_cast<char*>(mapping) + guard;
  stack.ss_size = size;
  if (sigaltstack(&stack, nullptr) != 0) {
    munmap(mapping, size + guard);
    return;
  }
  t_altStack.mapping = mapping;
  t_altStack.mappingSize = size + guard;
  t_altStack.previous = current;
}

void removeAltStack() {
  if (!t_altStack.mapping) return;
  stack_t previous = t_altStack.previous;
  previous.ss_flags &= SS_DISABLE;
  if (previous.ss_flags & SS_DISABLE) {
    previous.ss_sp = nullptr;
    previous.ss_size = 0;
  }
  if (sigaltstack(&previous, nullptr) != 0) return;  // still on it: keep the memory
  munmap(t_altStack.mapping, t_altStack.mappingSize);
  t_altStack = AltStack{};
}

Definitions::Contexts::X86_64 contextOf(int sig, const ucontext_t* uc) {
  Definitions::Contexts::X86_64 context = {};
#if defined(__x86_64__)
  const greg_t* r = uc->uc_mcontext.gregs;
  auto reg = [r](int index) { return static_cast<uint64_t>(r[index]); };
  context.rax = reg(REG_RAX);
  context.rbx = reg(REG_RBX);
  context.rcx = reg(REG_RCX);
  context.rdx = reg(REG_RDX);
  context.rsi = reg(REG_RSI);
  context.rdi = reg(REG_RDI);
  context.rbp = reg(REG_RBP);
  context.rsp = reg(REG_RSP);
  context.r8 = reg(REG_R8);
  context.r9 = reg(REG_R9);
  context.r10 = reg(REG_R10);
  context.r11 = reg(REG_R11);
  context.r12 = reg(REG_R12);
  context.r13 = reg(REG_R13);
  context.r14 = reg(REG_R14);
  context.r15 = reg(REG_R15);
  context.rip = reg(REG_RIP);
  context.flags = reg(REG_EFL);
  context.trapNumber = reg(REG_TRAPNO);
  context.errorCode = reg(REG_ERR);
  context.faultAddress = reg(REG_CR2);
#else
  (void)uc;
#endif
  context.hostSignal = sig;
  return context;
}

// Runs on the alternate stack. SA_NODEFER lets a fault inside the handler enter it again, so
// that a crash while writing a crash dump is reported as well.
void onException(int sig, siginfo_t* /*info*/, void* raw) {
  int savedErrno = errno;
  Definitions::Contexts::X86_64 context = contextOf(sig, static_cast<const ucontext_t*>(raw));
  // SA_NODEFER alone is not enough: a runtime that wraps signal handlers (ThreadSanitizer does)
  // may run this one with every signal blocked, and a fault on a blocked signal kills the
  // process outright instead of reaching the handler again.
  sigset_t exceptions;
  sigemptyset(&exceptions);
  for (int hosted : kSignals) sigaddset(&exceptions, hosted);
  pthread_sigmask(SIG_UNBLOCK, &exceptions, nullptr);
  if (ExceptionHandlerFn handler = g_handler.load(std::memory_order_acquire)) handler(&context);

  // Nothing is recovered: the default action ends the process with the original signal.
  struct sigaction fallback = {};
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  sigaction(sig, &fallback, nullptr);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, sig);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  raise(sig);
  // Still alive (the signal was held back): returning repeats the fault under the default action.
  errno = savedErrno;
}

}  // namespace

namespace ExceptionHandler {

void set(ExceptionHandlerFn handler) {
  g_handler.store(handler, std::memory_order_release);
  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  if (handler) {
    installAltStack();
    action.sa_sigaction = &onException;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  } else {
    action.sa_handler = SIG_DFL;
  }
  for (int sig : kSignals) sigaction(sig, &action, nullptr);
  Proc::signalActionsChanged();
}

void prepareThread() { installAltStack(); }

void finishThread() { removeAltStack(); }

}  // namespace ExceptionHandler
