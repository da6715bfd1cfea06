#include "common/request_log.h"

#include <posix/wire_tables.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/chn.h"

namespace RequestLog {

namespace {

constexpr uint32_t kServices = PX_DIAG_SERVICES;
constexpr uint32_t kCodes = 16;  // commands of every service are numbered below this

struct Counters {
  std::atomic<uint64_t> requests{0};
  std::atomic<uint64_t> buckets[PX_DIAG_BUCKETS] = {};
};
Counters g_counters[kServices][kCodes];

// Monitors attached; the list is read by every note() while the count is not zero.
std::atomic<uint32_t> g_monitorCount{0};
std::mutex g_monitorsMutex;
std::vector<Ref<Monitor>>* g_monitors = new std::vector<Ref<Monitor>>();  // guarded; never freed

uint32_t bucketOf(uint64_t micros) {
  uint32_t bucket = 0;
  while (bucket + 1 < PX_DIAG_BUCKETS && micros >= (uint64_t{1} << bucket)) ++bucket;
  return bucket;
}

// Whether the requests of `code` on `service` begin with a string (a path): monitors see it
// whole. The command tables say so, so a new command with a path is seen without more code.
bool leadsWithString(uint32_t service, uint32_t code) {
  std::span<const px::Command> table;
  switch (service) {
    case PX_DIAG_PROCESS_SERVICE: table = px::kProcessCommands; break;
    case PX_DIAG_FD_SERVICE: table = px::kFdCommands; break;
    case PX_DIAG_SEEKABLE_SERVICE:
    case PX_DIAG_RESIZABLE_SERVICE:
    case PX_DIAG_ITEM_SERVICE: table = px::kItemCommands; break;
    default: return false;
  }
  const px::Command* command = px::find(table, code);
  return command != nullptr && std::string_view(command->request).starts_with("string ");
}

// The request's leading string, up to PX_DIAG_EVENT_TEXT bytes and what the data holds.
std::string leadingString(const Ref<InMsg>& request) {
  uint32_t length = 0;
  if (request->dataSize() < sizeof length) return {};
  request->peek(&length, sizeof length);
  const uint64_t bytes =
      std::min<uint64_t>({length, request->dataSize() - sizeof length, PX_DIAG_EVENT_TEXT});
  std::string text(sizeof length + bytes, '\0');
  request->peek(text.data(), text.size());
  text.erase(0, sizeof length);
  return text;
}

// Hands the event of `request` to every monitor; the caller has seen that one is attached.
void offer(uint32_t service, const Ref<InMsg>& request, uint32_t result, Clock::time_point began,
           uint64_t took) {
  Event whole{};
  px_diag_event& event = whole.record;
  auto arrived = std::chrono::system_clock::now() - (Clock::now() - began);
  event.time_us = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(arrived.time_since_epoch()).count());
  event.pid = request->link() ? request->link()->peerPid() : 0;
  event.service = service;
  event.code = request->code();
  event.result = result;
  event.size = static_cast<uint32_t>(request->dataSize());
  event.took_us = took;
  request->peek(event.head, sizeof event.head);
  if (leadsWithString(service, event.code)) whole.text = leadingString(request);
  std::lock_guard lock(g_monitorsMutex);
  for (const Ref<Monitor>& monitor : *g_monitors) monitor->offer(whole);
}

uint64_t microsSince(Clock::time_point began) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - began).count());
}

}  // namespace

void note(uint32_t service, const Ref<InMsg>& request, uint32_t result, Clock::time_point began) {
  if (service >= kServices || !request) return;
  const uint64_t took = microsSince(began);
  uint32_t code = request->code();
  if (code < kCodes) {
    Counters& c = g_counters[service][code];
    c.requests.fetch_add(1, std::memory_order_relaxed);
    c.buckets[bucketOf(took)].fetch_add(1, std::memory_order_relaxed);
  }
  if (g_monitorCount.load(std::memory_order_relaxed) == 0) return;
  offer(service, request, result, began, took);
}

void noteLate(uint32_t service, const Ref<InMsg>& request, uint32_t result) {
  if (service >= kServices || !request || g_monitorCount.load(std::memory_order_relaxed) == 0)
    return;
  offer(service, request, PX_DIAG_LATE | result, request->arrived(), microsSince(request->arrived()));
}

std::vector<px_diag_command> commands() {
  std::vector<px_diag_command> out;
  for (uint32_t s = 0; s < kServices; ++s) {
    for (uint32_t code = 0; code < kCodes; ++code) {
      const Counters& c = g_counters[s][code];
      px_diag_command command = {};
      command.requests = c.requests.load(std::memory_order_relaxed);
      if (command.requests == 0) continue;
      command.service = s;
      command.code = code;
      for (int b = 0; b < PX_DIAG_BUCKETS; ++b)
        command.buckets[b] = c.buckets[b].load(std::memory_order_relaxed);
      out.push_back(command);
    }
  }
  return out;
}

void Monitor::offer(const Event& event) {
  if (pid_ != 0 && event.record.pid != pid_) return;
  std::lock_guard lock(mutex_);
  if (ring_.size() >= kRing || event.text.size() > kTextBytes - textBytes_) {
    ++lost_;
    return;
  }
  ring_.push_back(event);
  textBytes_ += event.text.size();
}

std::vector<Event> Monitor::take(size_t maxEvents, size_t maxBytes, uint64_t* lost) {
  std::lock_guard lock(mutex_);
  std::vector<Event> out;
  for (size_t bytes = 0; !ring_.empty() && out.size() < maxEvents;) {
    bytes += ring_.front().wireSize();
    if (bytes > maxBytes) break;
    textBytes_ -= ring_.front().text.size();
    out.push_back(std::move(ring_.front()));
    ring_.pop_front();
  }
  *lost = lost_;
  lost_ = 0;
  return out;
}

bool attach(const Ref<Monitor>& monitor) {
  const Ref<ChnLink>& link = monitor->request()->link();
  if (!link) return false;
  std::lock_guard lock(g_monitorsMutex);
  if (g_monitors->size() >= kMaxMonitors) return false;
  size_t ofProcess = 0;
  for (const Ref<Monitor>& m : *g_monitors) {
    const Ref<ChnLink>& other = m->request()->link();
    if (other == link) return false;
    if (other->peerPid() == link->peerPid()) ++ofProcess;
  }
  if (ofProcess >= kMaxMonitorsPerProcess) return false;
  g_monitors->push_back(monitor);
  g_monitorCount.store(static_cast<uint32_t>(g_monitors->size()), std::memory_order_relaxed);
  return true;
}

void detach(const ChnLink* link) {
  std::lock_guard lock(g_monitorsMutex);
  auto gone = [&](const Ref<Monitor>& m) { return m->request()->link().get() == link; };
  g_monitors->erase(std::remove_if(g_monitors->begin(), g_monitors->end(), gone), g_monitors->end());
  g_monitorCount.store(static_cast<uint32_t>(g_monitors->size()), std::memory_order_relaxed);
}

std::vector<Ref<Monitor>> monitors() {
  std::lock_guard lock(g_monitorsMutex);
  return *g_monitors;
}

}  // namespace RequestLog
