// The system log. Filters are registered by name; a line is written when the global level is
// at most the line's level and the filter is switched on. Lines go to standard error as
// "<time> <level> <source>: <text>".
//
// POSIX_LOG_LEVEL sets the global threshold (default 2), POSIX_LOG_OFF names filters
// (comma-separated) that are switched off.
#pragma once

#include <cstdint>

#include "platform/chario.h"

namespace SysLogFilter {
// The same name always answers the same handle; handles start at 1.
uint64_t reg(const char* name);
uint32_t level();
bool state(uint64_t handle);
// The filter's name as the source of a line; "DEFAULT" for handle 0 or an unknown handle.
Ref<String> id(uint64_t handle);
}  // namespace SysLogFilter

// A printer whose lines go to the log with a level and a source.
class LogPrinter : public CharPrinter {
 public:
  void setLevel(uint32_t level) { level_ = level; }
  void setSource(const Ref<String>& source) { source_ = source; }
  void endLine() override;

 private:
  friend struct SysLogStream;
  explicit LogPrinter(Ref<CharWriter> writer) : CharPrinter(std::move(writer)) {}
  uint32_t level_ = 1;
  Ref<String> source_;
};

struct SysLogStream {
  // A fresh printer for one or more lines to standard error.
  static Ref<LogPrinter> stdOutPrinter();
};
