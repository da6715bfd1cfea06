// The deferred close queue. A service multiplex must not be stopped from code that one of its
// own threads runs, yet descriptions drop their multiplexes exactly there (in destructors that
// run wherever the last reference goes). closeLater() takes such a multiplex and the queue's own
// thread, "SvcCloseQueue", stops it later: close, wait until its threads have ended, release.
// Closing a multiplex wakes every link thread it has, and every service handler waits in
// slices, so a multiplex normally stops at once. One that has not stopped after kStopMs (a
// handler inside a host call that takes its time) is set aside and looked at again whenever
// the thread wakes, at least every kStopMs: one slow description never holds up the teardown
// of the others. One queue per process, made on the first close request. A multiplex that no
// link ever reached has nothing to wait for: closeLater() stops it on the caller's thread,
// unless that is one of the link pool's.
#pragma once

#include <vector>

#include "common/tqueue.h"
#include "platform/multiplex.h"
#include "platform/thread.h"

template <>
struct TQueueNames<Ref<Libraries::Service::Multiplex>> {
  static constexpr const char* enqueue =
      "TQueue<class Ref<class Libraries::Service::Multiplex> >::enqueue";
  static constexpr const char* dequeue =
      "TQueue<class Ref<class Libraries::Service::Multiplex> >::dequeue";
};

class SvcCloseQueueObj : public Object, public Exec {
 public:
  using MultiplexQueue = TQueue<Ref<Libraries::Service::Multiplex>>;

  // How long the thread waits for one multiplex to stop before it sets it aside.
  static constexpr uint32_t kStopMs = 100;

  // A queue with no thread yet; start() gives it one.
  static Ref<SvcCloseQueueObj> create();
  // Starts the thread "SvcCloseQueue" that runs the queue; false when it could not be started.
  bool start();
  // Queues `multiplex` for stopping and wakes the thread.
  void push(Ref<Libraries::Service::Multiplex> multiplex);

  // Stops the queued multiplexes one after the other, in queue order, until cancelled.
  void run() override;

  // The process-wide queue, or null before the first close request.
  static Ref<SvcCloseQueueObj> instance();
  // Lets go of the process-wide queue (an exit handler); its thread keeps what it needs.
  static void releaseInstance();

 private:
  SvcCloseQueueObj();
  // Releases the set-aside multiplexes whose threads have ended meanwhile.
  void releaseStopped();

  Ref<Sem> sem_;               // one unit per queued multiplex
  Ref<MultiplexQueue> queue_;  // guarded by its own monitor
  // Closed multiplexes whose link threads had not ended in time; only the queue's thread
  // touches it.
  std::vector<Ref<Libraries::Service::Multiplex>> lingering_;
};

// Queues `multiplex` on the process-wide close queue, making the queue on first use.
void closeLater(Ref<Libraries::Service::Multiplex> multiplex);
