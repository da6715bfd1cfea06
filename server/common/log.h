// Logging idiom of the server's modules.
//
// Each source module that logs registers the filters "POSIX CLIENT", "POSIX FD" and
// "POSIX SERVER" during static initialisation and writes through its own handle of
// "POSIX SERVER". A line is built only when the global level and the filter allow it, so the
// pieces of a suppressed line are never evaluated.
#pragma once

#include <cstdint>
#include <source_location>

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

// A log-only assertion at level 4 through filter handle 0: "ASSERT CONDITION <condition>
// FAILED IN LINE <line>" in one statement, ", FUNCTION <functionName>" in a second, then the
// line ends. The server goes on. The compiler supplies the condition's text, exactly as
// written, and the line, so neither can drift from the source; the function's name is given
// because the line shows it qualified (Class::member), which __func__ does not.
#define POSIX_ASSERT(condition, functionName) \
  POSIX_ASSERT_AT(condition, std::source_location::current(), functionName)

// The same for a helper that checks an invariant on behalf of its caller: `where` is the
// std::source_location the helper took as a defaulted argument, so the line is the caller's.
#define POSIX_ASSERT_AT(condition, where, functionName)                               \
  do {                                                                                \
    if (!(condition)) ::posix::assertFailed(#condition, (where), functionName);       \
  } while (0)

namespace posix {
void assertFailed(const char* conditionText, const std::source_location& where,
                  const char* functionName);
}  // namespace posix

namespace posix {
// One source module's log registration: its handle of "POSIX SERVER", set by init() during
// static initialisation.
struct LogModule {
  uint64_t handle = 0;
  void init() { registerLogFilters(&handle); }
};
}  // namespace posix
