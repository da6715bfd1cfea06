// The log module of the service core: start-up, connections and request dispatch.
#pragma once

#include "common/log.h"

namespace posix {
extern LogModule serviceLog;
}
