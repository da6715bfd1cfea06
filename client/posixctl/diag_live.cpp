// posixctl top and monitor: the server's figures refreshed every second, and the stream of
// requests as the server serves them.
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include <posix/fd_service.h>
#include <posix/nodes.h>
#include <posix/posix_service.h>
#include <posix/wire.h>

#include "diag_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

// The upper bound in microseconds of the bucket that holds the fraction `q` of `count` replies.
uint64_t percentile(const uint64_t* buckets, uint64_t count, double q) {
  uint64_t seen = 0;
  for (int b = 0; b < PX_DIAG_BUCKETS; ++b) {
    seen += buckets[b];
    if (count > 0 && seen >= q * static_cast<double>(count)) return uint64_t{1} << b;
  }
  return 0;
}

const char* serviceName(uint32_t service) {
  static const char* const kNames[PX_DIAG_SERVICES] = {
      "posix.service", "posix.fd.service", "stream", "seekable", "resizable", "item", "fifo-status",
      "socket"};
  return service < PX_DIAG_SERVICES ? kNames[service] : "?";
}

// The request's first values as a person reads them, by command.
std::string arguments(const px_diag_event& e) {
  uint64_t u64 = 0, value = 0;
  uint32_t u32 = 0, sig = 0;
  int32_t i32[2] = {0, 0};
  std::memcpy(&u64, e.head, sizeof u64);
  std::memcpy(&u32, e.head, sizeof u32);
  std::memcpy(i32, e.head, sizeof i32);
  std::memcpy(&sig, e.head + 8, sizeof sig);
  std::memcpy(&value, e.head + 4, sizeof value);
  // A path's first bytes: a string is a u32 length and the bytes, of which 12 fit the head; a
  // longer one is marked cut, with its whole length.
  int pathShown = static_cast<int>(std::min<uint32_t>(u32, sizeof e.head - 4));
  char cut[32] = "";
  if (u32 > sizeof e.head - 4) snprintf(cut, sizeof cut, "... (%u bytes)", u32);
  char text[96] = "";
  if (e.service == PX_DIAG_PROCESS_SERVICE) {
    switch (e.code) {
      case PX_CMD_KILL:
      case PX_CMD_KILL_GROUP:
        snprintf(text, sizeof text, "target %" PRId64 " signal %u", static_cast<int64_t>(u64), sig);
        break;
      case PX_CMD_GET_GROUP_ID: snprintf(text, sizeof text, "pid %" PRIu64, u64); break;
      case PX_CMD_SPAWN:
      case PX_CMD_SPAWN_SHARED: snprintf(text, sizeof text, "path %.*s%s", pathShown, e.head + 4, cut); break;
      case PX_CMD_WAIT: snprintf(text, sizeof text, "kind %u value %" PRId64, u32, static_cast<int64_t>(value)); break;
      default: break;
    }
  } else if (e.service == PX_DIAG_STREAM_SERVICE) {
    if (e.code == PX_STREAM_READ) snprintf(text, sizeof text, "up to %" PRIu64 " bytes", u64);
    if (e.code == PX_STREAM_WRITE) snprintf(text, sizeof text, "%u bytes", e.size > 4 ? e.size - 4 : 0);
  } else if (e.service == PX_DIAG_FD_SERVICE) {
    switch (e.code) {
      case PX_FD_CMD_CLOSE: snprintf(text, sizeof text, "fd %d", i32[0]); break;
      case PX_FD_CMD_DUP: snprintf(text, sizeof text, "fd %d onto %d", i32[0], i32[1]); break;
      case PX_FD_CMD_OPEN: snprintf(text, sizeof text, "path %.*s%s", pathShown, e.head + 4, cut); break;
      default: break;
    }
  }
  return text;
}

// The result code by name: the shared ones, then the service's own. getTable's result is a
// count and a FIFO status answer a status: both shown as the number.
std::string resultName(const px_diag_event& e) {
  bool counted = e.service == PX_DIAG_FD_SERVICE && e.code == PX_FD_CMD_GET_TABLE;
  if ((counted || e.service == PX_DIAG_FIFO_STATUS_SERVICE) && e.result != PX_DIAG_KEPT)
    return std::to_string(e.result);  // a count, or a status of the end
  // A close finds nothing when the descriptor is not open, or when it comes after its process
  // ended (the library posts closes without waiting): the table went with the process.
  if (e.service == PX_DIAG_FD_SERVICE && e.code == PX_FD_CMD_CLOSE && e.result == PX_RESULT_FAILED)
    return "not-open";
  switch (e.result) {
    case PX_DIAG_KEPT: return "kept";
    case PX_RESULT_FAILED: return "failed";
    case PX_RESULT_DONE: return "done";
    case PX_RESULT_SHORT_REQUEST: return "short";
    case PX_RESULT_LIMIT: return "limit";
    default: break;
  }
  if (e.service == PX_DIAG_PROCESS_SERVICE) {
    switch (e.result) {
      case PX_RESULT_BAD_SIGNAL: return "bad-signal";
      case PX_RESULT_NO_PROCESS: return "no-process";
      case PX_RESULT_NOT_PERMITTED: return "not-permitted";
      case PX_RESULT_NO_CHILD: return "no-child";
      case PX_RESULT_ABORTED: return "aborted";
      default: break;
    }
  } else if (e.service == PX_DIAG_FD_SERVICE) {
    switch (e.result) {
      case PX_FD_RESULT_OPEN_FAILED: return "open-failed";
      case PX_FD_RESULT_NO_NODE: return "no-node";
      case PX_FD_RESULT_BAD_FD: return "bad-fd";
      default: break;
    }
  }
  return std::to_string(e.result);
}

// `text` as the inside of a JSON string: a path's bytes may hold quotes, backslashes or
// control characters.
std::string jsonText(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// The first bytes of the request's data in hex (as many as the event holds).
std::string dataHex(const px_diag_event& e) {
  std::string out;
  char byte[3];
  for (uint32_t i = 0; i < e.size && i < sizeof e.head; ++i) {
    snprintf(byte, sizeof byte, "%02x", e.head[i]);
    out += byte;
  }
  return out;
}

// The host's tasks (processes and threads) in use, and the most it lets this user run: the
// lowest of pid_max, threads-max and the user's process limit. The server's programs and
// threads draw on the same tasks as everything else on the host (0 for a figure not readable).
struct HostTasks {
  uint64_t used = 0, limit = 0;
};

uint64_t readNumber(const char* path) {
  unsigned long long value = 0;
  FILE* f = fopen(path, "re");
  if (!f) return 0;
  if (fscanf(f, "%llu", &value) != 1) value = 0;
  fclose(f);
  return value;
}

HostTasks hostTasks() {
  HostTasks t;
  t.limit = readNumber("/proc/sys/kernel/pid_max");
  uint64_t threads = readNumber("/proc/sys/kernel/threads-max");
  if (threads && (!t.limit || threads < t.limit)) t.limit = threads;
  rlimit user{};
  if (getrlimit(RLIMIT_NPROC, &user) == 0 && user.rlim_cur != RLIM_INFINITY && user.rlim_cur < t.limit)
    t.limit = user.rlim_cur;
  // The fourth field of /proc/loadavg is "running/total" tasks.
  FILE* f = fopen("/proc/loadavg", "re");
  unsigned long long running = 0, total = 0;
  double ignored[3];
  if (f && fscanf(f, "%lf %lf %lf %llu/%llu", &ignored[0], &ignored[1], &ignored[2], &running, &total) == 5)
    t.used = total;
  if (f) fclose(f);
  return t;
}

}  // namespace

int cmdTop(const std::vector<std::string>& given) {
  std::vector<std::string> args = given;
  bool json = takeFlag(&args, "--json"), bad = false;
  std::string countText;
  int64_t rounds = -1;
  if (takeOption(&args, "-n", &countText, &bad) && (!parseInt(countText.c_str(), &rounds) || rounds < 1))
    return usage("top -n takes a count of at least 1");
  if (bad || !args.empty()) return usage("top takes only -n COUNT and --json");
  DiagLink link;
  if (int err = link.open()) return callFailure("top", err);
  FiguresView before;
  if (int err = link.figures(&before)) return callFailure("top", err);
  for (int64_t round = 0; rounds < 0 || round < rounds; ++round) {
    sleep(1);
    FiguresView now;
    if (int err = link.figures(&now)) return callFailure("top", err);
    const px_diag_figures& f = now.figures;
    const HostTasks tasks = hostTasks();
    // Each running program takes two host tasks: its own and its agent thread in the server.
    const uint64_t room = tasks.limit > tasks.used ? (tasks.limit - tasks.used) / 2 : 0;
    if (json) {
      printf("{\"processes\":%" PRIu64 ",\"threads\":%" PRIu64 ",\"heap_bytes\":%" PRIu64
             ",\"descriptors\":%" PRIu64 ",\"descriptor_limit\":%" PRIu64 ",\"links\":%" PRIu64
             ",\"host_tasks\":%" PRIu64 ",\"host_task_limit\":%" PRIu64 ",\"commands\":[",
             f.processes, f.threads, f.heap_bytes, f.descriptors, f.descriptor_limit, f.links,
             tasks.used, tasks.limit);
    } else {
      printf("\nprocesses %" PRIu64 "  links %" PRIu64 "  threads %" PRIu64 "  heap %" PRIu64
             " bytes in %" PRIu64 " blocks  descriptors %" PRIu64 " of %" PRIu64 " (%" PRIu64 " left)\n",
             f.processes, f.links, f.threads, f.heap_bytes, f.heap_blocks, f.descriptors,
             f.descriptor_limit, f.descriptor_limit > f.descriptors ? f.descriptor_limit - f.descriptors : 0);
      printf("host tasks %" PRIu64 " of %" PRIu64 " in use (a running program takes 2: room for %" PRIu64
             " more programs)\n",
             tasks.used, tasks.limit, room);
      printf("%-18s %-16s %10s %10s %10s\n", "SERVICE", "COMMAND", "PER SEC", "P50 <US", "P99 <US");
    }
    bool first = true;
    for (const px_diag_command& c : now.commands) {
      px_diag_command delta = c;
      for (const px_diag_command& old : before.commands) {
        if (old.service != c.service || old.code != c.code) continue;
        delta.requests -= old.requests;
        for (int b = 0; b < PX_DIAG_BUCKETS; ++b) delta.buckets[b] -= old.buckets[b];
      }
      if (delta.requests == 0) continue;
      uint64_t p50 = percentile(delta.buckets, delta.requests, 0.5);
      uint64_t p99 = percentile(delta.buckets, delta.requests, 0.99);
      std::string name = commandName(c.service, c.code);
      if (json) {
        printf("%s{\"service\":\"%s\",\"command\":\"%s\",\"per_second\":%" PRIu64
               ",\"p50_us\":%" PRIu64 ",\"p99_us\":%" PRIu64 "}",
               first ? "" : ",", serviceName(c.service), name.c_str(), delta.requests, p50, p99);
      } else {
        printf("%-18s %-16s %10" PRIu64 " %10" PRIu64 " %10" PRIu64 "\n", serviceName(c.service),
               name.c_str(), delta.requests, p50, p99);
      }
      first = false;
    }
    if (json) printf("]}\n");
    fflush(stdout);
    before = std::move(now);
  }
  return kExitOk;
}

namespace {

// Whether some service has a command shown as `name` (a number stands for a command without
// a name): a monitor of a misspelt name would otherwise wait for ever for nothing.
bool isCommandName(const std::string& name) {
  if (!name.empty() && name.find_first_not_of("0123456789") == std::string::npos) return true;
  const uint32_t services[] = {PX_DIAG_PROCESS_SERVICE, PX_DIAG_FD_SERVICE,
                               PX_DIAG_STREAM_SERVICE,  PX_DIAG_SEEKABLE_SERVICE,
                               PX_DIAG_RESIZABLE_SERVICE, PX_DIAG_ITEM_SERVICE,
                               PX_DIAG_FIFO_STATUS_SERVICE};
  for (uint32_t service : services)
    for (uint32_t code = 0; code < 32; ++code)
      if (commandName(service, code) == name) return true;
  return false;
}

}  // namespace

int cmdMonitor(const std::vector<std::string>& given) {
  std::vector<std::string> args = given;
  bool json = takeFlag(&args, "--json"), data = takeFlag(&args, "--data"), bad = false;
  std::string pidText, command, countText;
  int64_t pid = 0, count = -1;
  if (takeOption(&args, "--pid", &pidText, &bad) && (!parseInt(pidText.c_str(), &pid) || pid < 1))
    return usage("monitor --pid takes a PID");
  if (takeOption(&args, "--command", &command, &bad) && !isCommandName(command))
    return usage("monitor: no service has a command '" + command + "' (the names are those "
                 "monitor prints: kill, spawn, openItem, read, seek...)");
  if (takeOption(&args, "--count", &countText, &bad) && (!parseInt(countText.c_str(), &count) || count < 1))
    return usage("monitor --count takes a count of at least 1");
  if (bad || !args.empty()) return usage("monitor takes --pid PID, --command NAME, --count N, --data and --json");
  DiagLink link;
  if (int err = link.open()) return callFailure("monitor", err);
  if (int err = link.monitor(static_cast<uint64_t>(pid))) return callFailure("monitor", err);
  for (int64_t shown = 0; count < 0 || shown < count;) {
    EventBatch batch;
    int err = link.next(&batch, -1);
    if (err == EINTR) continue;
    if (err == EBUSY) return failure("monitor: the server takes no more monitors (8 in all, 2 per process)", EBUSY);
    if (err != 0) return callFailure("monitor", err);
    if (batch.lost > 0) {
      if (json) printf("{\"lost\":%" PRIu64 "}\n", batch.lost);
      else printf("... %" PRIu64 " requests not shown: this monitor fell behind\n", batch.lost);
    }
    for (const px_diag_event& e : batch.events) {
      std::string name = commandName(e.service, e.code);
      if (!command.empty() && name != command) continue;
      std::string result = resultName(e);
      std::string hex = data ? dataHex(e) : "";
      if (json) {
        printf("{\"time_us\":%" PRIu64 ",\"pid\":%" PRIu64 ",\"service\":\"%s\",\"command\":\"%s\","
               "\"arguments\":\"%s\",\"size\":%u,%s%s%s\"result\":\"%s\",\"took_us\":%" PRIu64 "}\n",
               e.time_us, e.pid, serviceName(e.service), name.c_str(), jsonText(arguments(e)).c_str(), e.size,
               data ? "\"data\":\"" : "", hex.c_str(), data ? "\"," : "", result.c_str(), e.took_us);
      } else {
        time_t seconds = static_cast<time_t>(e.time_us / 1000000);
        struct tm tm;
        localtime_r(&seconds, &tm);
        printf("%02d:%02d:%02d.%06u pid %-7" PRIu64 " %-16s %-14s %-28s %6u bytes%s%s -> %-10s %6" PRIu64
               " us\n",
               tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<unsigned>(e.time_us % 1000000), e.pid,
               serviceName(e.service), name.c_str(), arguments(e).c_str(), e.size, data ? " " : "",
               hex.c_str(), result.c_str(), e.took_us);
      }
      if (count >= 0 && ++shown >= count) break;
    }
    fflush(stdout);
  }
  return kExitOk;
}

}  // namespace posixctl
