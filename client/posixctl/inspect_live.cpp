// posixctl top and monitor: the server's figures refreshed every second, and the stream of
// requests as the server serves them.
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "inspect_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

// "--name VALUE" taken out of `args` into *value; false when absent. *bad when VALUE is missing.
bool takeOption(std::vector<std::string>* args, const char* name, std::string* value, bool* bad) {
  for (size_t i = 0; i < args->size(); ++i) {
    if ((*args)[i] != name) continue;
    if (i + 1 >= args->size()) {
      *bad = true;
      return false;
    }
    *value = (*args)[i + 1];
    args->erase(args->begin() + static_cast<std::ptrdiff_t>(i), args->begin() + static_cast<std::ptrdiff_t>(i) + 2);
    return true;
  }
  return false;
}

bool takeFlag(std::vector<std::string>* args, const char* name) {
  for (size_t i = 0; i < args->size(); ++i) {
    if ((*args)[i] == name) {
      args->erase(args->begin() + static_cast<std::ptrdiff_t>(i));
      return true;
    }
  }
  return false;
}

// The upper bound in microseconds of the bucket that holds the fraction `q` of `count` replies.
uint64_t percentile(const uint64_t* buckets, uint64_t count, double q) {
  uint64_t seen = 0;
  for (int b = 0; b < PX_INSPECT_BUCKETS; ++b) {
    seen += buckets[b];
    if (count > 0 && seen >= q * static_cast<double>(count)) return uint64_t{1} << b;
  }
  return 0;
}

const char* serviceName(uint32_t service) {
  return service == PX_INSPECT_PROCESS_SERVICE ? "posix.service" : "posix.fd.service";
}

// The request's first values as a person reads them, by command.
std::string arguments(const px_inspect_event& e) {
  uint64_t u64 = 0;
  int32_t i32[2] = {0, 0};
  std::memcpy(&u64, e.head, sizeof u64);
  std::memcpy(i32, e.head, sizeof i32);
  char text[96] = "";
  if (e.service == PX_INSPECT_PROCESS_SERVICE) {
    uint32_t sig = 0;
    std::memcpy(&sig, e.head + 8, sizeof sig);
    if (e.code == 1 || e.code == 2) snprintf(text, sizeof text, "target %" PRId64 " signal %u", static_cast<int64_t>(u64), sig);
    else if (e.code == 4) snprintf(text, sizeof text, "pid %" PRIu64, u64);
    else if (e.code == 6 || e.code == 7) snprintf(text, sizeof text, "path %.*s", static_cast<int>(std::min<uint64_t>(u64 & 0xFFFFFFFF, 12)), e.head + 4);
    else if (e.code == 9) {
      uint64_t value = 0;
      std::memcpy(&value, e.head + 4, sizeof value);
      snprintf(text, sizeof text, "kind %d value %" PRIu64, i32[0], value);
    }
  } else {
    if (e.code == 0) snprintf(text, sizeof text, "fd %d", i32[0]);
    else if (e.code == 1) snprintf(text, sizeof text, "fd %d onto %d", i32[0], i32[1]);
    else if (e.code == 4) snprintf(text, sizeof text, "path %.*s", static_cast<int>(std::min<uint64_t>(u64 & 0xFFFFFFFF, 12)), e.head + 4);
  }
  return text;
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
  InspectLink link;
  if (int err = link.open()) return callFailure("top", err);
  FiguresView before;
  if (int err = link.figures(&before)) return callFailure("top", err);
  for (int64_t round = 0; rounds < 0 || round < rounds; ++round) {
    sleep(1);
    FiguresView now;
    if (int err = link.figures(&now)) return callFailure("top", err);
    const px_inspect_figures& f = now.figures;
    if (json) {
      printf("{\"processes\":%" PRIu64 ",\"threads\":%" PRIu64 ",\"heap_bytes\":%" PRIu64
             ",\"descriptors\":%" PRIu64 ",\"descriptor_limit\":%" PRIu64 ",\"commands\":[",
             f.processes, f.threads, f.heap_bytes, f.descriptors, f.descriptor_limit);
    } else {
      printf("\nprocesses %" PRIu64 "  threads %" PRIu64 "  heap %" PRIu64 " bytes in %" PRIu64
             " blocks  descriptors %" PRIu64 " of %" PRIu64 " (%" PRIu64 " left)\n",
             f.processes, f.threads, f.heap_bytes, f.heap_blocks, f.descriptors, f.descriptor_limit,
             f.descriptor_limit > f.descriptors ? f.descriptor_limit - f.descriptors : 0);
      printf("%-18s %-16s %10s %10s %10s\n", "SERVICE", "COMMAND", "PER SEC", "P50 <US", "P99 <US");
    }
    bool first = true;
    for (const px_inspect_command& c : now.commands) {
      px_inspect_command delta = c;
      for (const px_inspect_command& old : before.commands) {
        if (old.service != c.service || old.code != c.code) continue;
        delta.requests -= old.requests;
        for (int b = 0; b < PX_INSPECT_BUCKETS; ++b) delta.buckets[b] -= old.buckets[b];
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

int cmdMonitor(const std::vector<std::string>& given) {
  std::vector<std::string> args = given;
  bool json = takeFlag(&args, "--json"), bad = false;
  std::string pidText, command, countText;
  int64_t pid = 0, count = -1;
  if (takeOption(&args, "--pid", &pidText, &bad) && (!parseInt(pidText.c_str(), &pid) || pid < 1))
    return usage("monitor --pid takes a PID");
  takeOption(&args, "--command", &command, &bad);
  if (takeOption(&args, "--count", &countText, &bad) && (!parseInt(countText.c_str(), &count) || count < 1))
    return usage("monitor --count takes a count of at least 1");
  if (bad || !args.empty()) return usage("monitor takes --pid PID, --command NAME, --count N and --json");
  InspectLink link;
  if (int err = link.open()) return callFailure("monitor", err);
  if (int err = link.monitor(static_cast<uint64_t>(pid))) return callFailure("monitor", err);
  for (int64_t shown = 0; count < 0 || shown < count;) {
    EventBatch batch;
    int err = link.next(&batch, -1);
    if (err == EINTR) continue;
    if (err != 0) return callFailure("monitor", err);
    if (batch.lost > 0) {
      if (json) printf("{\"lost\":%" PRIu64 "}\n", batch.lost);
      else printf("... %" PRIu64 " requests not shown: this monitor fell behind\n", batch.lost);
    }
    for (const px_inspect_event& e : batch.events) {
      std::string name = commandName(e.service, e.code);
      if (!command.empty() && name != command) continue;
      std::string result = e.result == PX_INSPECT_KEPT ? "kept" : std::to_string(e.result);
      if (json) {
        printf("{\"time_us\":%" PRIu64 ",\"pid\":%" PRIu64 ",\"service\":\"%s\",\"command\":\"%s\","
               "\"arguments\":\"%s\",\"size\":%u,\"result\":\"%s\",\"took_us\":%" PRIu64 "}\n",
               e.time_us, e.pid, serviceName(e.service), name.c_str(), arguments(e).c_str(), e.size,
               result.c_str(), e.took_us);
      } else {
        time_t seconds = static_cast<time_t>(e.time_us / 1000000);
        struct tm tm;
        localtime_r(&seconds, &tm);
        printf("%02d:%02d:%02d.%06u pid %-7" PRIu64 " %-16s %-14s %-28s %6u bytes -> %-4s %6" PRIu64 " us\n",
               tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<unsigned>(e.time_us % 1000000), e.pid,
               serviceName(e.service), name.c_str(), arguments(e).c_str(), e.size, result.c_str(),
               e.took_us);
      }
      if (count >= 0 && ++shown >= count) break;
    }
    fflush(stdout);
  }
  return kExitOk;
}

}  // namespace posixctl
