// The published pipe ends that one process made and that no client has connected to yet.
// Such an end has no owner but its future clients, so without a bound a process could make
// the server keep any number of them. The process's list admits at most maxEnds() waiting ends
// (ends that have been claimed since leave the list as it is looked at) and closes the ends
// still waiting when the process ends. Each waiting end also counts among the descriptions
// its maker holds (DescriptionBudget) until it closes.
//
// Locking: `monitor_` guards `ends_`; it is never held while an end is closed. Lock order: the
// list's monitor before an end's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fifo/autoclose_multiplex.h"
#include "platform/sync.h"

class UnclaimedPipeEnds : public Object {
 public:
  // Waiting ends one process may leave: L/64 for a descriptor limit L, at least 8 and at most
  // 128 (64 pipes).
  static size_t maxEnds(uint64_t limit);

  static Ref<UnclaimedPipeEnds> create() { return new UnclaimedPipeEnds(); }

  // Forgets the ends claimed since the last look; false when `count` more would pass the bound.
  bool admit(size_t count);
  // Lists a freshly published end.
  void add(Ref<AutocloseSvcMultiplex> end);
  // Closes every end no client has connected to and forgets them all.
  void closeAll();
  size_t waiting();

 private:
  UnclaimedPipeEnds() : monitor_(Mon::create()) {}

  Ref<Mon> monitor_;
  std::vector<Ref<AutocloseSvcMultiplex>> ends_;
};
