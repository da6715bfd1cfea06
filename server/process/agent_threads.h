// Threads for process agents, made ahead of need. A spawn hands its agent to a thread that is
// already waiting, so that making a thread never lies on a spawn's path; once the program has
// started, the agent asks for a spare to be made for the next spawn (keepSpare). A thread whose
// agent has run to its end waits for the next agent, and ends when one waits already. So once
// the server has made its first spare, exactly one thread waits whenever no spawn is under way.
//
// Locking: `monitor_` guards queue_ and waiting_. A thread counted in waiting_ is asleep on
// `wake_` or about to be; run() takes one off the count and posts once for it.
#pragma once

#include <cstdint>
#include <deque>

#include "platform/sync.h"
#include "platform/thread.h"

class AgentThreads {
 public:
  // Hands `agent` to a waiting thread, or to a thread made now when none waits; false (with
  // the agent not run) when no thread could be made.
  static bool run(Ref<Exec> agent);
  // Makes a waiting thread when none waits; called off the spawn's path.
  static void keepSpare();

  // Threads waiting for an agent (tests and diagnostics).
  static uint32_t waiting();

 private:
  class Worker;
  static constexpr uint32_t kSpare = 1;

  static AgentThreads& instance();
  AgentThreads();
  bool startThread();
  // The next agent to run, or null when the calling thread should stop (enough wait already)
  // or wait (`*wait` true).
  Ref<Exec> next(bool* wait);

  Ref<Mon> monitor_;
  Ref<Sem> wake_;
  std::deque<Ref<Exec>> queue_;  // agents handed over and not yet taken by a thread
  uint32_t waiting_ = 0;         // threads that wait for an agent
};
