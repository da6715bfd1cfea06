#include "platform/log.h"

#include <sys/time.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Filter {
  std::string name;
  bool on;
};

// Registered filters; handle h is index h - 1. Guarded by registryMutex().
// Never destroyed: detached threads may still log while the process runs its exit-time
// destructors.
std::vector<Filter>& filters() {
  static auto* list = new std::vector<Filter>;
  return *list;
}
std::mutex& registryMutex() {
  static auto* m = new std::mutex;
  return *m;
}

bool namedOff(const char* name) {
  const char* off = std::getenv("POSIX_LOG_OFF");
  if (!off) return false;
  std::string list(off);
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(',', start);
    if (comma == std::string::npos) comma = list.size();
    if (list.compare(start, comma - start, name) == 0 && std::strlen(name) == comma - start) return true;
    start = comma + 1;
  }
  return false;
}

// By default a line of every process the server meets (level 1) is hidden: a service's log
// says when it starts and stops and what went wrong, and would otherwise grow with every client.
constexpr uint32_t kDefaultLevel = 2;

uint32_t readLevel() {
  const char* text = std::getenv("POSIX_LOG_LEVEL");
  if (!text || !*text) return kDefaultLevel;
  char* end = nullptr;
  unsigned long value = std::strtoul(text, &end, 10);
  return (end && *end == 0) ? static_cast<uint32_t>(value) : kDefaultLevel;
}

}  // namespace

namespace SysLogFilter {

uint64_t reg(const char* name) {
  std::lock_guard lock(registryMutex());
  auto& list = filters();
  for (size_t i = 0; i < list.size(); ++i)
    if (list[i].name == name) return i + 1;
  list.push_back({name, !namedOff(name)});
  return list.size();
}

uint32_t level() {
  static const uint32_t value = readLevel();
  return value;
}

bool state(uint64_t handle) {
  std::lock_guard lock(registryMutex());
  auto& list = filters();
  if (handle == 0 || handle > list.size()) return true;
  return list[handle - 1].on;
}

Ref<String> id(uint64_t handle) {
  std::lock_guard lock(registryMutex());
  auto& list = filters();
  if (handle == 0 || handle > list.size()) return String::create("DEFAULT");
  return String::create(list[handle - 1].name.c_str());
}

}  // namespace SysLogFilter

Ref<LogPrinter> SysLogStream::stdOutPrinter() { return new LogPrinter(Debug::out()); }

void LogPrinter::endLine() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm parts;
  localtime_r(&now.tv_sec, &parts);
  char prefix[96];
  int n = std::snprintf(prefix, sizeof prefix, "%04d-%02d-%02d %02d:%02d:%02d.%03d %u ",
                        parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                        parts.tm_min, parts.tm_sec, static_cast<int>(now.tv_usec / 1000), level_);
  std::string line(prefix, n > 0 ? static_cast<size_t>(n) : 0);
  if (source_) line.append(source_->c_str(), source_->length());
  line += ": ";
  line += line_;
  line_.swap(line);
  CharPrinter::endLine();
}
