// The log modules of the process subsystem.
#pragma once

#include "common/log.h"

namespace posix {
extern LogModule processLog;  // process records, registry and groups
extern LogModule agentLog;    // the agents that start and watch programs
}  // namespace posix
