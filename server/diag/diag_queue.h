// The introspection service's requests waiting for their turn, one queue per client process.
// The service serves one request of each process with requests waiting in turn, so a process
// gets no more turns for holding many links or sending many requests, and another process's
// request waits for at most one request of each process ahead of it. Each request costs a
// bounded amount of work (a page, DiagViews), so that wait is bounded too.
//
// Only the service's own thread uses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>

#include "platform/message.h"

class DiagQueue {
 public:
  // Requests one process may have waiting; one more is refused at once with PX_RESULT_LIMIT.
  static constexpr size_t kMaxPerProcess = 16;

  // Queues `request` behind the others of its process; false when that process has
  // kMaxPerProcess waiting already.
  bool push(Ref<InMsg> request);
  // The oldest request of the process whose turn it is, which then goes to the back; requests
  // whose client has gone are dropped. Null when none waits.
  Ref<InMsg> next();
  bool empty() const { return turns_.empty(); }

 private:
  static uint64_t processOf(const Ref<InMsg>& request);

  std::unordered_map<uint64_t, std::deque<Ref<InMsg>>> waiting_;  // by the client's pid
  std::deque<uint64_t> turns_;  // the processes with requests waiting, in turn
};
