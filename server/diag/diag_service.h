// "posix.diag.service": the read-only introspection service. It runs on a thread of its own
// ("Diag"), so that a slow reader of its answers never holds up the process and descriptor
// services, and it changes nothing in the server: it reads records, tables and pipes under
// their own locks, and the figures the service loops note (RequestLog).
//
// Fairness: every request that arrives joins its client process's queue (DiagQueue) and the
// thread serves the queues in turn, one request at a time; each request costs at most a page
// of work (DiagViews). A monitor request is answered (or kept) as it arrives.
//
// Monitors: a monitor request is kept and answered with a batch of events every
// kFlushMs, while its link's reply queue is short; a reader that falls behind loses events
// (its ring is bounded in events and in bytes), and the count lost travels with the next
// batch.
#pragma once

#include "diag/diag_queue.h"
#include "platform/chn.h"
#include "platform/thread.h"

class DiagService : public Object, public ConMan, public Exec {
 public:
  // Null when the channel could not be made.
  static Ref<DiagService> create();

  bool connect(const Ref<ChnLink>& link) override;
  void disconnect(const Ref<ChnLink>& link) override;
  void run() override;

  const Ref<Chn>& channel() const { return channel_; }

 private:
  static constexpr uint32_t kFlushMs = 50;
  // Events one reply carries at most; fewer when their strings fill the frame.
  static constexpr size_t kBatch = 1000;
  // Replies a monitor's link may have queued before further batches wait.
  static constexpr size_t kQueuedBatches = 4;

  DiagService() = default;
  // Queues a request, refuses it when its process has too many waiting, or attaches a monitor.
  void admit(const Ref<InMsg>& request);
  // Answers one queued request.
  void serve(const Ref<InMsg>& request);
  uint32_t handle(const Ref<InMsg>& request, const Ref<OutMsg>& reply);
  void flushMonitors();

  Ref<Chn> channel_;
  DiagQueue queue_;  // used only by the thread that runs the service
};
