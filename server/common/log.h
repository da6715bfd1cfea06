// Logging idiom of the server's modules.
//
// Each source module that logs registers the filters "POSIX CLIENT", "POSIX FD" and
// "POSIX SERVER" during static initialisation and writes through its own handle of
// "POSIX SERVER". A line is built only when the global level and the filter allow it, so the
// pieces of a suppressed line are never evaluated.
#pragma once

#include <cstdint>

#include "platform/log.h"

namespace posix {

// Registers the three filters in their fixed order and stores the "POSIX SERVER" handle.
void registerLogFilters(uint64_t* serverHandle);

// Prints a number the way every log line does: hexadecimal, "h (", decimal, ")".
struct LogNum {
  uint64_t value;
};
CharPrinter& operator<<(CharPrinter& printer, LogNum number);

// Whether a line of `level` through `handle` would be written.
inline bool logEnabled(uint32_t level, uint64_t handle) {
  return SysLogFilter::level() <= level && SysLogFilter::state(handle);
}

// Starts a line: a printer with the level and the handle's source set.
Ref<LogPrinter> logLine(uint32_t level, uint64_t handle);

}  // namespace posix

// Writes one log line of `level` through `handle`; the pieces follow as a << chain.
#define POSIX_LOG(handle, level, pieces)                          \
  do {                                                            \
    if (::posix::logEnabled((level), (handle))) {                 \
      Ref<LogPrinter> posixLogPrinter_ = ::posix::logLine((level), (handle)); \
      *posixLogPrinter_ << pieces;                                \
      posixLogPrinter_->endLine();                                \
    }                                                             \
  } while (0)

// A log-only assertion at level 4 through filter handle 0: the condition text and the line
// number in one statement, the function name in a second, then the line ends. The server goes on.
#define POSIX_ASSERT(condition, conditionText, lineNumber, functionName)                 \
  do {                                                                                  \
    if (!(condition)) ::posix::assertFailed(conditionText, (lineNumber), functionName); \
  } while (0)

namespace posix {
void assertFailed(const char* conditionText, uint64_t lineNumber, const char* functionName);
}  // namespace posix

namespace posix {
// One source module's log registration: its handle of "POSIX SERVER", set by init() during
// static initialisation.
struct LogModule {
  uint64_t handle = 0;
  void init() { registerLogFilters(&handle); }
};
}  // namespace posix
