// The deferred close queue. A service multiplex must not be stopped from code that one of its
// own threads runs, yet descriptions drop their multiplexes exactly there (in destructors that
// run wherever the last reference goes). closeLater() takes such a multiplex and the queue's own
// thread, "SvcCloseQueue", stops it later: close, wait until its threads have ended, release.
// Closing a multiplex wakes every link thread it has, so a blocked client never holds the
// queue up. One queue per process, made on the first close request.
#pragma once

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

  Ref<Sem> sem_;               // one unit per queued multiplex
  Ref<MultiplexQueue> queue_;  // guarded by its own monitor
};

// Queues `multiplex` on the process-wide close queue, making the queue on first use.
void closeLater(Ref<Libraries::Service::Multiplex> multiplex);
