// Processor exceptions. The handler gets the faulting thread's context; after it returns the
// platform restores the default action and raises the signal again.
#pragma once

#include <cstdint>

namespace Definitions::Contexts {

// x86-64 context of a processor exception, filled from the signal's ucontext_t.
struct X86_64 {
  uint64_t rax, rbx, rcx, rdx, rsi, rdi, rbp, rsp;
  uint64_t r8, r9, r10, r11, r12, r13, r14, r15;
  uint64_t rip;
  uint64_t flags;
  uint64_t trapNumber;   // the exception number
  uint64_t errorCode;
  uint64_t faultAddress;
  int hostSignal;        // SIGSEGV, SIGBUS, SIGILL or SIGFPE
};

}  // namespace Definitions::Contexts

using ExceptionHandlerFn = void (*)(Definitions::Contexts::X86_64* context);

namespace ExceptionHandler {
// Installs `handler` for SIGSEGV, SIGBUS, SIGILL and SIGFPE on an alternate signal stack of
// every thread the platform starts (and of the calling thread).
void set(ExceptionHandlerFn handler);

// Gives the calling thread an alternate signal stack, so that a thread that ran out of stack
// still reaches the handler. Thd calls it when a thread starts; idempotent.
void prepareThread();
// Takes back what prepareThread gave; Thd calls it when the thread's body has returned.
void finishThread();
}  // namespace ExceptionHandler
