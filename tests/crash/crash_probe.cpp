// A program that crashes on purpose, so that tests can read the crash dump that the server's
// handler writes. It links the server's libraries and registers the log filters and the
// crash handler in the same order as the server's static initialisation, then faults as its
// argument says:
//   null-write   stores through a null pointer in crashProbeNullWrite (SIGSEGV)
//   refused-new  makes the heap refuse, then allocates (the wrapper's division fault, SIGFPE)
//   thread       the null store on a platform thread named "probe-worker"
//   nested       every dump faults again right after its banner: exits with -10 (246)
// Before faulting it writes "probe: tid=<tid> threads=<count>" (decimal) on standard error and
// one level-1 log line "crash probe armed".
#include <sys/resource.h>

#include <cstdio>
#include <cstring>

#include "common/service_log.h"
#include "crash/crash_dump.h"
#include "crash/crash_handler.h"
#include "fd/fd_log.h"
#include "platform/heap.h"
#include "platform/proc.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "process/process_log.h"

namespace {

void staticInitialisation() {
  posix::serviceLog.init();
  installCrashHandler();
  posix::processLog.init();
  posix::agentLog.init();
  posix::fdTableLog.init();
  posix::fdServiceLog.init();
  posix::crashLog.init();
}

void announce() {
  Ref<ProcInfo> self = Proc::info(Proc::current());
  std::fprintf(stderr, "probe: tid=%llu threads=%llu\n",
               static_cast<unsigned long long>(Thd::current()),
               static_cast<unsigned long long>(self ? self->threadCount() : 0));
  POSIX_LOG(posix::crashLog.handle, 1, "crash probe armed");
}

}  // namespace

// Outside the anonymous namespace so that the symbol keeps a plain name for addr2line. It loads
// a marker into every general register but rsp and rbp (0x1a rax, 0x1b rbx, 0x1c rcx, 0x1d rdx,
// 0x51 rsi, 0xd1 rdi, 0x108 to 0x115 r8 to r15), then stores to address 0; in assembly, so that
// no sanitizer check stands in front of the fault. The local gives the function a stack frame:
// an optimising compiler leaves a leaf function without one its frame pointer untouched, and
// the walk would then skip the caller.
[[gnu::noinline]] void crashProbeNullWrite() {
  volatile int value = 1;
  (void)value;
  asm volatile(
      "movq $0x1a, %%rax\n\tmovq $0x1b, %%rbx\n\tmovq $0x1c, %%rcx\n\tmovq $0x1d, %%rdx\n\t"
      "movq $0x51, %%rsi\n\tmovq $0xd1, %%rdi\n\tmovq $0x108, %%r8\n\tmovq $0x109, %%r9\n\t"
      "movq $0x110, %%r10\n\tmovq $0x111, %%r11\n\tmovq $0x112, %%r12\n\tmovq $0x113, %%r13\n\t"
      "movq $0x114, %%r14\n\tmovq $0x115, %%r15\n\tmovl $1, 0\n\t" ::
          : "rax", "rbx", "rcx", "rdx", "rsi", "rdi", "r8", "r9", "r10", "r11", "r12", "r13",
            "r14", "r15", "memory");
}

// Allocates after the heap was told to refuse: the heap wrapper divides by zero.
[[gnu::noinline]] int* crashProbeRefusedAllocation() {
  Heap::refuseAfter(0);
  int* value = new int(7);
  Heap::refuseAfter(-1);
  return value;
}

namespace {

class Worker : public Object, public Exec {
 public:
  void run() override {
    announce();
    crashProbeNullWrite();
  }
};

int runThread() {
  Ref<Thd> worker = Thd::create(new Worker());
  if (!worker) return 3;
  worker->setName("probe-worker");
  if (!worker->start()) return 3;
  worker->join(kForever);
  return 4;
}

int usage() {
  std::fprintf(stderr, "usage: crash_probe null-write|refused-new|thread|nested\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // Faults here are expected; no core files.
  struct rlimit noCore = {0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  staticInitialisation();
  if (argc != 2) return usage();
  const char* mode = argv[1];

  if (std::strcmp(mode, "thread") == 0) return runThread();
  if (std::strcmp(mode, "nested") == 0) setCrashDumpTestHook(&crashProbeNullWrite);
  else if (std::strcmp(mode, "refused-new") != 0 && std::strcmp(mode, "null-write") != 0)
    return usage();

  announce();
  if (std::strcmp(mode, "refused-new") == 0) {
    int* value = crashProbeRefusedAllocation();
    std::printf("not refused: %d\n", *value);
    delete value;
    return 5;
  }
  crashProbeNullWrite();
  return 6;  // not reached: the fault ends the process
}
