// The handler the server installs for processor exceptions in any of its threads: it writes a
// crash dump to the log, whatever the log level, and returns so the platform ends the process.
#pragma once

#include "common/log.h"
#include "platform/exception.h"

namespace posix {
extern LogModule crashLog;
}

// Installs the handler through ExceptionHandler::set (static initialisation).
void installCrashHandler();
// The handler itself.
void crashHandler(Definitions::Contexts::X86_64* context);
