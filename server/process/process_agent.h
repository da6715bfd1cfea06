// The agent of one spawned program: on a thread of its own ("PosixChild") it starts the
// program, waits for its end, records the exit code and tells the parent. Two semaphores join
// it with the spawning thread: the agent posts `started_` once the program is started (or
// failed), the spawning thread posts `linked_` once the child is registered and linked, and
// only then does the agent handle the program's end, so a program that ends at once is still
// seen as a child. (With one semaphore for both directions, an agent whose program ended before
// the spawning thread woke would take back its own post.)
//
// The spawning thread is the service's main thread, so it waits for the start only a bounded
// time: a start that hangs (a program or directory on a file system that does not answer)
// is given up, `state_` says so, and the agent then kills whatever it started late.
#pragma once

#include <atomic>

#include "platform/sync.h"
#include "platform/thread.h"
#include "process/posix_process.h"

class ProcessAgent : public Object, public Exec {
 public:
  ProcessAgent(Ref<PosixProcess> process, ProgramStart start);

  // Waits until the program has been started or has failed to start: true. False when that
  // took longer than `timeoutMs`; the start is then given up for good.
  bool awaitStart(uint32_t timeoutMs);
  // Why the start failed (an errno value), once awaitStart answered true and the pid is 0.
  uint32_t startError() const { return startError_; }
  // Lets the agent go on to handle the program's end.
  void releaseEnd() { linked_->up(); }

  void run() override;

 private:
  Ref<PosixProcess> process_;  // held for the program's whole life
  ProgramStart start_;
  Ref<Sem> started_;
  Ref<Sem> linked_;
  enum State : int { kStarting, kReported, kAbandoned };
  std::atomic<int> state_{kStarting};  // which of the agent and the spawning thread came first
  uint32_t startError_ = 0;            // written before `started_` is posted
};
