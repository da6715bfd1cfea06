#include "diag/crash_handler.h"

#include "platform/proc.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace posix {
LogModule crashLog;
}

namespace {
// Handlers in progress; the sixteenth nested crash ends the process.
uint64_t g_nesting = 0;
constexpr uint64_t kMaxNesting = 15;
constexpr int32_t kNestedCrashExit = -10;
}  // namespace

void installCrashHandler() { ExceptionHandler::set(crashHandler); }

void crashHandler(Definitions::Contexts::X86_64* context) {
  if (Atomic::inc(&g_nesting) > kMaxNesting) Proc::exit(kNestedCrashExit);
  // Written whatever the log level: no level or filter test.
  Ref<LogPrinter> printer = SysLogStream::stdOutPrinter();
  printer->setLevel(static_cast<uint32_t>(posix::crashLog.handle));
  printer->setSource(SysLogFilter::id(4));
  *printer << "*** CRASH DUMP ***";
  printer->endLine();
  *printer << "Exception in Thread ID " << hex << Thd::current();
  printer->endLine();
  *printer << "Process ID: " << hex << Proc::current();
  printer->endLine();
  if (context) {
    *printer << "Exception Nr: 0x" << hex << context->trapNumber;
    printer->endLine();
    *printer << "PFA:          0x" << hex << context->faultAddress;
    printer->endLine();
    *printer << "rip: 0x" << hex << context->rip;
    printer->endLine();
  }
  Atomic::dec(&g_nesting);
}
