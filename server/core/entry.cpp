// The image entry and its static initialisation: the ordered table of initialisers that runs
// before main (log filters of every module, the crash handler, the process-wide objects), and
// the exit handlers that release those objects when the image is unloaded.
#include "platform/image.h"

#include "adapters/adapter_log.h"
#include "common/exit_handlers.h"
#include "common/close_queue.h"
#include "core/server_main.h"
#include "common/service_log.h"
#include "crash/crash_handler.h"
#include "fd/fd_log.h"
#include "fifo/fifo_log.h"
#include "process/process_group.h"
#include "process/process_log.h"
#include "process/process_registry.h"

namespace {

using Initialiser = void (*)();

void createProcessRegistry() {
  ProcessRegistry::create();
  registerExitHandler([] { ProcessRegistry::release(); });
}

void createProcessMonitor() {
  ProcessRegistry::createMonitor();
  registerExitHandler([] { ProcessRegistry::releaseMonitor(); });
}

void createGroupRegistry() {
  PosixProcessGroup::createRegistry();
  registerExitHandler([] { PosixProcessGroup::releaseRegistry(); });
}

// The close queue is made on first use; only its release at unload is arranged here.
void arrangeCloseQueueRelease() {
  registerExitHandler([] { SvcCloseQueueObj::releaseInstance(); });
}

// Run once, first to last; a null entry is skipped.
const Initialiser kStaticInitialisers[] = {
    [] { posix::serviceLog.init(); },
    installCrashHandler,
    [] { posix::processLog.init(); },
    [] { posix::agentLog.init(); },
    [] { posix::fdTableLog.init(); },
    [] { posix::fdServiceLog.init(); },
    [] { posix::fifoLog.init(); },
    [] { posix::adapterLog.init(); },
    [] { posix::crashLog.init(); },
    createProcessRegistry,
    createProcessMonitor,
    createGroupRegistry,
    arrangeCloseQueueRelease,
};

}  // namespace

namespace Image {

void _start(uint64_t /*handle*/, uint32_t reason) {
  if (reason == kReasonLoad) {
    for (Initialiser init : kStaticInitialisers)
      if (init) init();
    serverMain();
  } else if (reason == kReasonUnload) {
    runExitHandlers();
  }
}

}  // namespace Image
