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
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <posix/wire_tables.h>

#include "diag_client.h"
#include "diag_text.h"
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

// A stream request's values as a person reads them: what a read asks for, what a write carries.
std::string streamArguments(const px_diag_event& e) {
  uint64_t max = 0;
  std::memcpy(&max, e.head, sizeof max);
  if (e.code == PX_STREAM_READ) return "up to " + std::to_string(max) + " bytes";
  if (e.code == PX_STREAM_WRITE) return std::to_string(e.size > 4 ? e.size - 4 : 0) + " bytes";
  return "";
}

// One value of a request's head as text: a number, or a string, whole when the event brought
// it (`whole`), else the head's first bytes; one cut short is marked with its whole length.
// 0 when the head does not hold the value whole (or it is a record, which never fits), else
// the bytes it takes in the head.
size_t showValue(std::string_view type, const uint8_t* at, size_t held, std::string_view whole,
                 std::string* text) {
  if (type == "string") {
    uint32_t length = 0;
    if (held < sizeof length) return 0;
    std::memcpy(&length, at, sizeof length);
    size_t inHead = std::min<size_t>(length, held - sizeof length);
    std::string_view shown = whole;
    if (shown.size() < inHead) shown = {reinterpret_cast<const char*>(at + sizeof length), inHead};
    text->append(shown);
    if (length > shown.size()) text->append("... (").append(std::to_string(length)).append(" bytes)");
    return sizeof length + inHead;
  }
  size_t size = type == "u8" ? 1 : type == "u32" || type == "i32" ? 4 : type == "u64" ? 8 : 0;
  if (size == 0 || held < size) return 0;
  uint64_t raw = 0;  // values are little-endian, as the host's
  std::memcpy(&raw, at, size);
  if (type == "u64") *text += std::to_string(static_cast<int64_t>(raw));
  else if (type == "i32") *text += std::to_string(static_cast<int32_t>(static_cast<uint32_t>(raw)));
  else *text += std::to_string(raw);
  return size;
}

// The request's first values as a person reads them: "name value" for each value of the
// command's table line that the event's head holds, up to the first string, which is shown
// from `whole` (the request's leading string the event brought) when the head cuts it.
std::string arguments(const px_diag_event& e, std::string_view whole) {
  if (e.service == PX_DIAG_STREAM_SERVICE) return streamArguments(e);
  const px::Command* command = commandEntry(e.service, e.code);
  if (command == nullptr) return "";
  const size_t held = std::min<size_t>(e.size, sizeof e.head);
  std::string text;
  std::string_view type, name;
  bool optional = false;
  px::LayoutWalk walk(command->request);
  for (size_t at = 0; walk.next(&type, &name, &optional);) {
    std::string value;
    size_t used = showValue(type, e.head + at, held - at, at == 0 ? whole : std::string_view(), &value);
    if (used == 0) break;
    if (!text.empty()) text += ' ';
    text.append(name).append(" ").append(value);
    if (type == "string") break;  // its length leaves what follows to chance
    at += used;
  }
  return text;
}

// The result code by name: the shared ones, then the service's own. getTable's result is a
// count and a FIFO status answer a status: both shown as the number. The late answer of a
// kept request is "kept:" and its result (a signal wait's is the signal's number).
std::string resultName(px_diag_event e) {
  if (e.result != PX_DIAG_KEPT && (e.result & PX_DIAG_LATE) != 0) {
    e.result &= ~PX_DIAG_LATE;
    const bool signal = e.service == PX_DIAG_PROCESS_SERVICE && e.code == PX_CMD_WAIT_SIGNAL;
    std::string late = "kept:";
    return late.append(signal ? std::to_string(e.result) : resultName(e));
  }
  bool counted = e.service == PX_DIAG_FD_SERVICE && e.code == PX_FD_CMD_GET_TABLE;
  if ((counted || e.service == PX_DIAG_FIFO_STATUS_SERVICE) && e.result != PX_DIAG_KEPT)
    return std::to_string(e.result);  // a count, or a status of the end
  // A close finds nothing when the descriptor is not open, or when it comes after its process
  // ended (the library posts closes without waiting): the table went with the process.
  if (e.service == PX_DIAG_FD_SERVICE && e.code == PX_FD_CMD_CLOSE && e.result == PX_RESULT_FAILED)
    return "not-open";
  if (e.result == PX_DIAG_KEPT) return "kept";
  std::span<const px::Result> own;
  if (e.service == PX_DIAG_PROCESS_SERVICE) own = px::kProcessResults;
  if (e.service == PX_DIAG_FD_SERVICE) own = px::kFdResults;
  for (std::span<const px::Result> table : {std::span<const px::Result>(px::kSharedResults), own}) {
    if (const px::Result* result = px::find(table, e.result)) return result->name;
  }
  return std::to_string(e.result);
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
    for (size_t k = 0; k < batch.events.size(); ++k) {
      const px_diag_event& e = batch.events[k];
      std::string name = commandName(e.service, e.code);
      if (!command.empty() && name != command) continue;
      const std::string args = arguments(e, batch.texts[k]);
      std::string result = resultName(e);
      std::string hex = data ? dataHex(e) : "";
      if (json) {
        printf("{\"time_us\":%" PRIu64 ",\"pid\":%" PRIu64 ",\"service\":\"%s\",\"command\":\"%s\","
               "\"arguments\":\"%s\",\"size\":%u,%s%s%s\"result\":\"%s\",\"took_us\":%" PRIu64 "}\n",
               e.time_us, e.pid, serviceName(e.service), name.c_str(), jsonText(args).c_str(), e.size,
               data ? "\"data\":\"" : "", hex.c_str(), data ? "\"," : "", result.c_str(), e.took_us);
      } else {
        time_t seconds = static_cast<time_t>(e.time_us / 1000000);
        struct tm tm;
        localtime_r(&seconds, &tm);
        printf("%02d:%02d:%02d.%06u pid %-7" PRIu64 " %-16s %-14s %-28s %6u bytes%s%s -> %-10s %6" PRIu64
               " us\n",
               tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<unsigned>(e.time_us % 1000000), e.pid,
               serviceName(e.service), name.c_str(), lineText(args).c_str(), e.size, data ? " " : "",
               hex.c_str(), result.c_str(), e.took_us);
      }
      if (count >= 0 && ++shown >= count) break;
    }
    fflush(stdout);
  }
  return kExitOk;
}

}  // namespace posixctl
