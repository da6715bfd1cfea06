#include "common/log.h"

namespace posix {

void registerLogFilters(uint64_t* serverHandle) {
  SysLogFilter::reg("POSIX CLIENT");
  SysLogFilter::reg("POSIX FD");
  *serverHandle = SysLogFilter::reg("POSIX SERVER");
}

CharPrinter& operator<<(CharPrinter& printer, LogNum number) {
  return printer << hex << number.value << "h (" << dec << number.value << ")";
}

Ref<LogPrinter> logLine(uint32_t level, uint64_t handle) {
  Ref<LogPrinter> printer = SysLogStream::stdOutPrinter();
  printer->setLevel(level);
  printer->setSource(SysLogFilter::id(handle));
  return printer;
}

void assertFailed(const char* conditionText, const std::source_location& where,
                  const char* functionName) {
  constexpr uint32_t kLevel = 4;
  constexpr uint64_t kDefaultFilter = 0;
  if (!logEnabled(kLevel, kDefaultFilter)) return;
  Ref<LogPrinter> printer = logLine(kLevel, kDefaultFilter);
  *printer << "ASSERT CONDITION " << conditionText << " FAILED IN LINE " << LogNum{where.line()};
  if (logEnabled(kLevel, kDefaultFilter)) *printer << ", FUNCTION " << functionName;
  printer->endLine();
}

}  // namespace posix
