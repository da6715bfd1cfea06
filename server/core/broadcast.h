// Signals to many processes at once: to every process the caller may signal (killGroup with
// selector 1), or to the members of a group. A broadcast visits its targets a slice at a time,
// so that no request holds the service for longer than one slice: one that fits in a slice is
// carried out at once; a larger one is kept, and between two passes over the links every
// process with broadcasts pending gets one slice of its oldest. A process floods with many
// links as much as with one, and the others' requests are served between the slices.
//
// Everything here runs on the main service thread, like the requests it serves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "platform/message.h"
#include "process/posix_process.h"
#include "process/process_group.h"

struct Broadcast {
  Ref<InMsg> request;  // answered with the result once every target was visited
  Ref<PosixProcess> sender;
  uint32_t signum = 0;
  StatusRecord record{};
  bool everyProcess = false;  // answers 4 when no target counted; a group answers 1
  std::vector<Ref<PosixProcess>> targets;  // every process: chosen when the request came
  size_t next = 0;       // the first target not visited yet
  // A group: its members are walked in order of joining from `from` on, a slice at a time,
  // leaving out those that joined after the request came (serial `before` on).
  Ref<PosixProcessGroup> group;
  uint64_t from = 0;
  uint64_t before = 0;
  bool counted = false;  // a target was signalled
};

class BroadcastQueue {
 public:
  // Targets visited in one turn. A kill, stop or continue of a target costs a few
  // microseconds of host calls, any other signal less than one.
  static constexpr size_t kSlice = 32;
  // Broadcasts one process may have waiting; another is refused with PX_RESULT_LIMIT.
  static constexpr size_t kMaxPendingPerProcess = 16;

  // True when `sender` has as many broadcasts waiting as it may: another is refused with
  // PX_RESULT_LIMIT.
  bool full(const Ref<PosixProcess>& sender) const;
  // Carries `broadcast` out now when it fits in a slice and its sender has none waiting, and
  // answers true with the result in *result; otherwise keeps it (false) and answers its request
  // when it is done. The caller asked full() first.
  bool submit(Broadcast broadcast, uint32_t* result);
  // One slice for every process with broadcasts waiting, in turn; answers those that are done.
  void runRound();
  bool idle() const { return senders_.empty(); }

 private:
  const std::deque<Broadcast>* waitingOf(const PosixProcess* sender) const;
  // Visits the next slice; true when every target has been visited.
  static bool runSlice(Broadcast& broadcast);
  static void visit(Broadcast& broadcast, const Ref<PosixProcess>& target);
  static uint32_t result(const Broadcast& broadcast);

  // The processes with broadcasts waiting, each with its own in order of arrival.
  struct Sender {
    PosixProcess* process;  // held by its broadcasts
    std::deque<Broadcast> waiting;
  };
  std::vector<Sender> senders_;
};
