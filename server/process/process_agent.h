// The agent of one spawned program: on a thread of its own ("PosixChild") it starts the
// program, waits for its end, records the exit code and tells the parent. A semaphore joins it
// with the spawning thread twice: the agent posts once the program is started (or failed), the
// spawning thread posts once the child is registered and linked, and only then does the agent
// handle the program's end, so a program that ends at once is still seen as a child.
#pragma once

#include "platform/sync.h"
#include "platform/thread.h"
#include "process/posix_process.h"

class ProcessAgent : public Object, public Exec {
 public:
  ProcessAgent(Ref<PosixProcess> process, ProgramStart start);

  // Blocks until the program has been started or has failed to start.
  void awaitStart() { handshake_->down(); }
  // Lets the agent go on to handle the program's end.
  void releaseEnd() { handshake_->up(); }

  void run() override;

 private:
  Ref<PosixProcess> process_;  // held for the program's whole life
  ProgramStart start_;
  Ref<Sem> handshake_;
};
