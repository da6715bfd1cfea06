// Threads for process agents, made ahead of need. A spawn hands its agent to a thread that is
// already waiting, so that making a thread never lies on a spawn's path; once the program has
// started, the agent asks for a spare to be made for the next spawn (keepSpare), which makes
// one only when no thread is free. A thread whose agent has run to its end waits for the next
// agent, and ends when kSpare wait already. Two are kept so that a program started and
// collected in turn (a shell running commands one after another) reuses the threads, and no
// thread is made or ended per program. Making one costs the server a few hundred microseconds
// of CPU while the new program starts, which on a small machine the program feels.
//
// A thread counts as free from the moment its agent's program has ended and been collected
// (finishing), before it tells the parent: the parent's next spawn, which that news may set
// off, goes to that thread (it takes the agent from the queue once its own agent has returned,
// a few microseconds later), and the spare check does not mistake the thread on its way back
// for a missing one. Otherwise the thread that waited last is woken: starts in turn then run on
// one thread while the other sleeps. Starts spread over threads that take turns cost each
// start more: each thread's caches, its child stack and its kept /proc directory go cold.
//
// Locking: `monitor_` guards queue_, idle_, posted_ and returning_. A thread in idle_ is
// asleep on its own semaphore or about to be; run() takes the last one off, counts it in
// posted_ and posts once for it (after leaving the monitor, holding a reference to the
// thread's worker), and the thread leaves posted_ when it looks at the queue again. Until then
// it counts as free: another thread may have taken the agent it was woken for.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "platform/sync.h"
#include "platform/thread.h"

class AgentThreads {
 public:
  // Hands `agent` to a waiting thread, or to a thread made now when none waits; false (with
  // the agent not run) when no thread could be made.
  static bool run(Ref<Exec> agent);
  // Makes a waiting thread when none is free; called off the spawn's path.
  static void keepSpare();
  // Called by an agent on its thread once its program has ended and been collected: the
  // thread is free from here on and takes the next agent once the current one returns.
  static void finishing();
  // Makes the spares the server starts with, so that the count of threads that wait stays the
  // same from the first spawn on.
  static void prepare();

  // Threads waiting for an agent (tests and diagnostics).
  static uint32_t waiting();

 private:
  class Worker;
  static constexpr uint32_t kSpare = 2;
  // An agent's stack. Each running program has an agent, and an agent's work is shallow: a
  // start and a wait touched 8 to 12 KiB of stack (with and without AddressSanitizer), so a
  // quarter of a MiB leaves room twenty times over, where the host's default of 8 MiB cost
  // each running program a page of page tables and 8 MiB of address space.
  static constexpr uint64_t kStackBytes = 256 << 10;

  static AgentThreads& instance();
  AgentThreads();
  bool startThread();
  // Threads free for an agent not yet taken: waiting, woken, or on their way back. Under
  // monitor_.
  int64_t freeThreads() const;
  // The next agent to run, or null when the calling thread should stop (enough wait already)
  // or wait (`*wait` true; it is listed in idle_). `woken`: the thread comes from a post of
  // run().
  Ref<Exec> next(Worker* self, bool woken, bool* wait);

  Ref<Mon> monitor_;
  std::deque<Ref<Exec>> queue_;  // agents handed over and not yet taken by a thread
  std::vector<Worker*> idle_;    // threads that wait for an agent, the last to wait last
  uint32_t posted_ = 0;          // threads woken by run() that have not looked at the queue
  uint32_t returning_ = 0;       // threads whose agent is finishing (finishing() called)
};
