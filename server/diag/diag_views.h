// The introspection service's answers: what the server keeps, read without changing it and
// written into a reply in the layouts of the service's protocol header.
//
// A list longer than one reply comes in pages. Each page costs a bounded amount of work (a
// frame's worth of records, and the pipes walk a budget of table entries), ends with where
// the next page starts (0: the list is complete), and the client asks again from there. The
// places are keys of the list's order, not positions, so records that come or go between two
// pages never make another record vanish or repeat.
#pragma once

#include <cstdint>

#include "platform/message.h"

namespace DiagViews {

// Processes listed in one page at most.
constexpr size_t kProcessesPerPage = 128;
// Table entries (and processes) the pipes walk visits in one page at most.
constexpr size_t kWalkBudget = 4096;

// Each answers the reply's result code. `first` is where the page starts: 0, or the `next`
// of the page before.
uint32_t processes(uint64_t first, const Ref<OutMsg>& reply);
uint32_t descriptors(uint64_t pid, uint64_t first, const Ref<OutMsg>& reply);
uint32_t pipes(uint64_t first, const Ref<OutMsg>& reply);
uint32_t figures(const Ref<OutMsg>& reply);

}  // namespace DiagViews
