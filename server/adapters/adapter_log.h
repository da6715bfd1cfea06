// The log module of the adapter services.
#pragma once

#include "common/log.h"

namespace posix {
extern LogModule adapterLog;
}
