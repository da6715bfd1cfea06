// One pending blocking wait of a process, queued in its record until a matching child ends,
// the process aborts its waits, or nothing is left to wait for.
#pragma once

#include <cstdint>

#include "platform/message.h"

struct WaitEntry {
  Ref<InMsg> request;  // answered with the wait's result as its reply
  uint32_t kind;       // PX_WAIT_BY_PID, PX_WAIT_BY_GROUP or PX_WAIT_ANY_CHILD
  uint32_t reserved0;
  uint64_t value;      // the pid or the group id; not read for any child
  uint64_t reserved1;
};
