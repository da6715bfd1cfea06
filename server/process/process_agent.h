// The agent of one spawned program: on a thread of its own ("PosixChild") it starts the
// program, waits for its end, records the exit code and tells the parent. Two semaphores join
// it with the spawning thread: the agent posts `started_` once the program is started (or
// failed), the spawning thread posts `linked_` once the child is registered and linked, and
// only then does the agent handle the program's end, so a program that ends at once is still
// seen as a child. (With one semaphore for both directions, an agent whose program ended before
// the spawning thread woke would take back its own post.)
#pragma once

#include "platform/sync.h"
#include "platform/thread.h"
#include "process/posix_process.h"

class ProcessAgent : public Object, public Exec {
 public:
  ProcessAgent(Ref<PosixProcess> process, ProgramStart start);

  // Blocks until the program has been started or has failed to start.
  void awaitStart() { started_->down(); }
  // Lets the agent go on to handle the program's end.
  void releaseEnd() { linked_->up(); }

  void run() override;

 private:
  Ref<PosixProcess> process_;  // held for the program's whole life
  ProgramStart start_;
  Ref<Sem> started_;
  Ref<Sem> linked_;
};
