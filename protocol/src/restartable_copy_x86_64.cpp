// Restartable copies on x86-64 Linux, through the restartable sequence area the C library
// registers for every thread. The sequence: set the area's critical-section pointer, compare
// the lock word, copy both pieces with rep movsb, store the counter (the commit). The kernel
// sends a thread that is preempted, stopped or signalled between the start and the commit to
// the abort label, which is preceded by the signature the C library registered.
#include <sys/rseq.h>

#include <cstddef>

#include "restartable_copy.h"

namespace posix {

namespace {

struct rseq* area() {
  return reinterpret_cast<struct rseq*>(static_cast<char*>(__builtin_thread_pointer()) +
                                        __rseq_offset);
}

}  // namespace

bool restartableCopies() {
  thread_local const bool registered =
      __rseq_size >= offsetof(struct rseq, rseq_cs) + sizeof(uint64_t) &&
      static_cast<int32_t>(area()->cpu_id) >= 0;
  return registered;
}

CopyOutcome copyRestartable(const CopyPlan& plan) {
  int outcome;
  __asm__ __volatile__(
      "leaq 3f(%%rip), %%rax\n\t"
      "movq %%rax, %c[cs](%[rseq])\n"
      "1:\n\t"
      "movq %c[lock](%[p]), %%rax\n\t"
      "movl (%%rax), %%eax\n\t"
      "cmpl %c[held](%[p]), %%eax\n\t"
      "jne 4f\n\t"
      "movq %c[n0](%[p]), %%rcx\n\t"
      "movq %c[s0](%[p]), %%rsi\n\t"
      "movq %c[d0](%[p]), %%rdi\n\t"
      "rep movsb\n\t"
      "movq %c[n1](%[p]), %%rcx\n\t"
      "movq %c[s1](%[p]), %%rsi\n\t"
      "movq %c[d1](%[p]), %%rdi\n\t"
      "rep movsb\n\t"
      "movq %c[value](%[p]), %%rcx\n\t"
      "movq %c[counter](%[p]), %%rax\n\t"
      "movq %%rcx, (%%rax)\n"
      "2:\n\t"
      "xorl %[out], %[out]\n\t"
      "jmp 6f\n\t"
      ".pushsection __rseq_cs, \"aw\"\n\t"
      ".balign 32\n"
      "3:\n\t"
      ".long 0, 0\n\t"
      ".quad 1b, 2b - 1b, 5f\n\t"
      ".popsection\n\t"
      // The signature before the abort label: the bytes of an instruction never run.
      ".byte 0x0f, 0xb9, 0x3d\n\t"
      ".long 0x53053053\n"
      "5:\n\t"
      "movl $2, %[out]\n\t"
      "jmp 6f\n"
      "4:\n\t"
      "movl $1, %[out]\n"
      "6:\n\t"
      "movq $0, %c[cs](%[rseq])\n\t"
      : [out] "=&r"(outcome)
      : [p] "r"(&plan), [rseq] "r"(area()), [cs] "i"(offsetof(struct rseq, rseq_cs)),
        [lock] "i"(offsetof(CopyPlan, lock)), [held] "i"(offsetof(CopyPlan, held)),
        [n0] "i"(offsetof(CopyPlan, size0)), [s0] "i"(offsetof(CopyPlan, from0)),
        [d0] "i"(offsetof(CopyPlan, to0)), [n1] "i"(offsetof(CopyPlan, size1)),
        [s1] "i"(offsetof(CopyPlan, from1)), [d1] "i"(offsetof(CopyPlan, to1)),
        [value] "i"(offsetof(CopyPlan, value)), [counter] "i"(offsetof(CopyPlan, counter))
      : "rax", "rcx", "rsi", "rdi", "memory", "cc");
  if (outcome == 0) return CopyOutcome::kCommitted;
  return outcome == 1 ? CopyOutcome::kLost : CopyOutcome::kRestarted;
}

}  // namespace posix
