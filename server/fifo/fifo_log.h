// The log module of the pipe and FIFO subsystem.
#pragma once

#include "common/log.h"

namespace posix {
extern LogModule fifoLog;
}
