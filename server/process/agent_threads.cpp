#include "process/agent_threads.h"

#include <algorithm>

namespace {
// Whether this thread's agent has called finishing(): the thread is counted in returning_.
thread_local bool t_returning = false;
}  // namespace

class AgentThreads::Worker : public Object, public Exec {
 public:
  void run() override {
    AgentThreads& threads = instance();
    bool woken = false;
    for (;;) {
      bool wait = false;
      Ref<Exec> agent = threads.next(this, woken, &wait);
      woken = false;
      if (agent) {
        agent->run();
      } else if (wait) {
        wake_->down();
        woken = true;
      } else {
        return;
      }
    }
  }
  const Ref<Sem> wake_ = Sem::create(0);  // posted once per wake by AgentThreads::run
};

AgentThreads& AgentThreads::instance() {
  // Never destroyed: waiting threads use it until the process ends.
  static AgentThreads* threads = new AgentThreads();
  return *threads;
}

AgentThreads::AgentThreads() : monitor_(Mon::create()) {}

bool AgentThreads::run(Ref<Exec> agent) {
  AgentThreads& threads = instance();
  Exec* handed = agent.get();
  Ref<Worker> woken;
  {
    MonLock lock(threads.monitor_);
    threads.queue_.push_back(std::move(agent));
    // A thread on its way back takes the agent from the queue; else the one that waited last.
    if (threads.returning_ >= threads.queue_.size()) return true;
    if (!threads.idle_.empty()) {
      woken = threads.idle_.back();  // alive: it waits for this very post
      threads.idle_.pop_back();
      ++threads.posted_;
    } else if (threads.freeThreads() >= 0) {
      return true;
    }
  }
  // Posted outside the monitor: a thread woken onto this processor runs at once, and would
  // otherwise find the monitor held, hand the processor back and be woken a second time. The
  // reference keeps its semaphore alive should it take its agent, finish and end before up()
  // has returned.
  if (woken) {
    woken->wake_->up();
    return true;
  }
  if (threads.startThread()) return true;
  // No thread could be made: withdraw the agent unless a thread that came free took it.
  MonLock lock(threads.monitor_);
  auto it = std::find_if(threads.queue_.begin(), threads.queue_.end(),
                         [&](const Ref<Exec>& queued) { return queued.get() == handed; });
  if (it == threads.queue_.end()) return true;
  threads.queue_.erase(it);
  return false;
}

void AgentThreads::keepSpare() {
  AgentThreads& threads = instance();
  {
    MonLock lock(threads.monitor_);
    if (threads.freeThreads() > 0) return;
  }
  threads.startThread();
}

void AgentThreads::finishing() {
  AgentThreads& threads = instance();
  MonLock lock(threads.monitor_);
  if (t_returning) return;
  t_returning = true;
  ++threads.returning_;
}

int64_t AgentThreads::freeThreads() const {
  return static_cast<int64_t>(idle_.size()) + posted_ + returning_ - static_cast<int64_t>(queue_.size());
}

void AgentThreads::prepare() {
  for (uint32_t i = 0; i < kSpare; ++i) instance().startThread();
}

uint32_t AgentThreads::waiting() {
  AgentThreads& threads = instance();
  MonLock lock(threads.monitor_);
  return static_cast<uint32_t>(threads.idle_.size());
}

bool AgentThreads::startThread() {
  Ref<Thd> thread = Thd::create(new Worker());
  if (!thread) return false;
  thread->setName("PosixChild");
  thread->setStackSize(kStackBytes);
  return thread->start();
}

Ref<Exec> AgentThreads::next(Worker* self, bool woken, bool* wait) {
  MonLock lock(monitor_);
  if (woken) --posted_;
  if (t_returning) {
    t_returning = false;
    --returning_;
  }
  if (!queue_.empty()) {
    Ref<Exec> agent = std::move(queue_.front());
    queue_.pop_front();
    return agent;
  }
  *wait = idle_.size() < kSpare;
  if (*wait) idle_.push_back(self);
  return nullptr;
}
