// The log modules of the descriptor subsystem.
#pragma once

#include "common/log.h"

namespace posix {
extern LogModule fdTableLog;    // descriptor tables
extern LogModule fdServiceLog;  // the descriptor service
}
