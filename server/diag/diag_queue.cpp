#include "diag/diag_queue.h"

#include "platform/chn.h"

uint64_t DiagQueue::processOf(const Ref<InMsg>& request) {
  return request->link() ? request->link()->peerPid() : 0;
}

bool DiagQueue::push(Ref<InMsg> request) {
  const uint64_t pid = processOf(request);
  std::deque<Ref<InMsg>>& waiting = waiting_[pid];
  if (waiting.size() >= kMaxPerProcess) return false;
  if (waiting.empty()) turns_.push_back(pid);
  waiting.push_back(std::move(request));
  return true;
}

Ref<InMsg> DiagQueue::next() {
  while (!turns_.empty()) {
    const uint64_t pid = turns_.front();
    turns_.pop_front();
    auto at = waiting_.find(pid);
    Ref<InMsg> request = std::move(at->second.front());
    at->second.pop_front();
    if (at->second.empty())
      waiting_.erase(at);
    else
      turns_.push_back(pid);
    if (request->link() && !request->link()->peerGone()) return request;
  }
  return nullptr;
}
