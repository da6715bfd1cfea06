// The agent of one spawned program: on a thread of its own ("PosixChild", made ahead of need by
// AgentThreads and held until the program has ended) it starts the program, links the child
// record (group, descriptor table, registry, the parent's children), answers the spawn request
// with the pid, then waits for the program's end, records the exit code and tells the parent.
// Starting, linking and the end happen on this one thread in that order, so a program that
// ends at once is still seen as a child, and the service thread hands the request over and
// goes on: no start, however slow, holds up the service.
//
// The started program may connect before its agent has linked it; the process service then
// waits a moment for the link (awaitLinked) instead of making a record of its own for it.
#pragma once

#include "platform/thread.h"
#include "process/posix_process.h"

class ProcessAgent : public Object, public Exec {
 public:
  ProcessAgent(Ref<PosixProcess> parent, Ref<PosixProcess> child, ProgramStart start,
               Ref<InMsg> request);

  // The record of `identity` once its agent has linked it, for a process that this server
  // started; null at once for any other process, and after a short bound.
  static Ref<PosixProcess> awaitLinked(const ProcIdentity& identity);

  void run() override;

 private:
  // Starts the program and links the record: true when a program runs and the request was
  // answered with its pid; false (the request answered with the reason) when none runs.
  bool start();
  // Answers the spawn request: the pid (u64) when done, the reason (u32 errno) when failed.
  template <class T>
  void answer(uint32_t code, T value);

  Ref<PosixProcess> parent_;   // until the child is linked
  Ref<PosixProcess> process_;  // held for the program's whole life
  ProgramStart start_;         // let go once the program has started
  StartedProgram program_;     // the host program, waited for and collected by run()
  Ref<InMsg> request_;         // the spawn request, answered once
};
