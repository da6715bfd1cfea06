// What the services served, for the introspection service: per command a count and a latency
// histogram, and the monitors that want every request as it happens.
//
// The service loops note each request after answering it. Without a monitor attached that
// costs two clock reads and two relaxed atomic additions, and allocates nothing; a monitor
// adds a copy of the event into its ring under the ring's own lock, with the request's
// leading string (a path) when its command has one. A monitor whose reader falls behind loses
// events (counted) and never holds up the service that noted them.
#pragma once

#include <posix/diag_service.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "platform/message.h"

namespace RequestLog {

using Clock = std::chrono::steady_clock;

// Notes one request of `service` (PX_DIAG_*_SERVICE) that arrived at `began`: answered with
// `result`, or PX_DIAG_KEPT when it is kept to be answered later.
void note(uint32_t service, const Ref<InMsg>& request, uint32_t result, Clock::time_point began);

// Notes the late answer of a request that note() saw kept, for the monitors only (the request
// was counted when it arrived): `result` is the answer's, the time runs from its arrival.
void noteLate(uint32_t service, const Ref<InMsg>& request, uint32_t result);

// Every command served so far, with its count and latency histogram.
std::vector<px_diag_command> commands();

// One event as a monitor keeps and sends it: the fixed record, and the request's leading
// string (up to PX_DIAG_EVENT_TEXT bytes; empty for a command without one).
struct Event {
  px_diag_event record;
  std::string text;
  // Bytes the event takes in a reply: the record, the string's length and its bytes.
  size_t wireSize() const { return sizeof record + sizeof(uint32_t) + text.size(); }
};

// One monitor: the events of the processes it asked for, kept until its reader takes them.
class Monitor : public Object {
 public:
  Monitor(Ref<InMsg> request, uint64_t pid) : request_(std::move(request)), pid_(pid) {}
  // Events kept at most, and bytes of their strings kept at most (64 paths of the longest
  // kind, thousands of ordinary ones); an event past either is lost (and counted) until the
  // reader catches up, so a monitor holds at most about 600 KiB whatever it is sent.
  static constexpr size_t kRing = 4096;
  static constexpr size_t kTextBytes = 256 * 1024;

  void offer(const Event& event);
  // Takes the oldest events, up to `maxEvents` of them and `maxBytes` of reply
  // (Event::wireSize), and the count lost since the last take.
  std::vector<Event> take(size_t maxEvents, size_t maxBytes, uint64_t* lost);
  const Ref<InMsg>& request() const { return request_; }

 private:
  const Ref<InMsg> request_;  // answered with each batch
  const uint64_t pid_;        // 0: every process
  std::mutex mutex_;
  std::deque<Event> ring_;  // guarded by mutex_
  size_t textBytes_ = 0;    // guarded by mutex_: the strings' bytes in ring_
  uint64_t lost_ = 0;       // guarded by mutex_
};

// Monitors attached at most, over every link: each costs the services a copy of every event.
// One process holds at most kMaxMonitorsPerProcess of them, one per link, so no client can
// take them all.
constexpr size_t kMaxMonitors = 8;
constexpr size_t kMaxMonitorsPerProcess = 2;

// Attaches `monitor`; false when kMaxMonitors are attached already, or its link has one, or
// its process has kMaxMonitorsPerProcess.
bool attach(const Ref<Monitor>& monitor);
// Drops the monitors that answer on `link` (its client went away).
void detach(const ChnLink* link);
std::vector<Ref<Monitor>> monitors();

}  // namespace RequestLog
