#include "crash/crash_handler.h"

#include "common/service_log.h"
#include "crash/crash_dump.h"
#include "platform/heap.h"
#include "platform/proc.h"
#include "platform/sync.h"

namespace posix {
LogModule crashLog;
}

namespace {
// Handlers in progress, changed only atomically; the sixteenth nested crash ends the process.
uint64_t g_nesting = 0;
constexpr uint64_t kMaxNesting = 15;
constexpr int32_t kNestedCrashExit = -10;
constexpr uint64_t kDumpSourceHandle = 4;
}  // namespace

void installCrashHandler() { ExceptionHandler::set(crashHandler); }

void crashHandler(Definitions::Contexts::X86_64* context) {
  // The dump allocates; a heap that a test told to refuse would turn it into one more fault.
  Heap::refuseAfter(-1);
  if (Atomic::inc(&g_nesting) > kMaxNesting) Proc::exit(kNestedCrashExit);
  {
    // Written whatever the log level: no level or filter test. The level is the service core's
    // "POSIX SERVER" handle and the source the name of handle 4; this pairing is the reverse of
    // every other log line's and is kept so that dumps read as they always have.
    Ref<LogPrinter> printer = SysLogStream::stdOutPrinter();
    printer->setLevel(static_cast<uint32_t>(posix::serviceLog.handle));
    printer->setSource(SysLogFilter::id(kDumpSourceHandle));
    crashDump(context, printer);
  }
  Atomic::dec(&g_nesting);
}
