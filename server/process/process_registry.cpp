#include "process/process_registry.h"

#include <unordered_map>
#include <unordered_set>

#include "process/posix_process.h"

namespace {
using ByPid = std::unordered_multimap<uint64_t, WeakRef<PosixProcess>>;

ByPid* g_byPid = nullptr;  // guarded by g_registryMonitor
Ref<Mon> g_registryMonitor;
}  // namespace

namespace ProcessRegistry {

void create() { g_byPid = new ByPid(); }
void release() {
  delete g_byPid;
  g_byPid = nullptr;
}
void createMonitor() { g_registryMonitor = Mon::create(); }
void releaseMonitor() { g_registryMonitor.reset(); }

Mon* monitor() { return g_registryMonitor.get(); }

void add(const Ref<PosixProcess>& process) {
  MonLock lock(g_registryMonitor);
  if (g_byPid) g_byPid->emplace(process->pid(), WeakRef<PosixProcess>(process));
}

void remove(PosixProcess* process) {
  MonLock lock(g_registryMonitor);
  if (!g_byPid) return;
  auto [at, end] = g_byPid->equal_range(process->pid());
  for (; at != end; ++at) {
    if (at->second.get() != process) continue;
    g_byPid->erase(at);
    return;
  }
}

void forget(PosixProcess* process) {
  MonLock lock(g_registryMonitor);
  if (!g_byPid) return;
  auto [at, end] = g_byPid->equal_range(process->pid());
  while (at != end) at = at->second.get() == process ? g_byPid->erase(at) : std::next(at);
}

Ref<PosixProcess> find(const ProcIdentity& identity) {
  // Records passed over are let go after the monitor: a record whose last reference goes here
  // forgets its listings, which must not happen while they are walked.
  std::vector<Ref<PosixProcess>> passed;
  MonLock lock(g_registryMonitor);
  if (!g_byPid) return nullptr;
  auto [at, end] = g_byPid->equal_range(identity.pid);
  for (; at != end; ++at) {
    Ref<PosixProcess> process = at->second.lock();
    if (!process) continue;
    if (process->identity() == identity) return process;
    passed.push_back(std::move(process));
  }
  return nullptr;
}

std::vector<Ref<PosixProcess>> living() {
  std::vector<Ref<PosixProcess>> out;
  std::unordered_set<PosixProcess*> seen;
  MonLock lock(g_registryMonitor);
  if (!g_byPid) return out;
  for (const auto& [pid, listed] : *g_byPid)
    if (Ref<PosixProcess> process = listed.lock(); process && seen.insert(process.get()).second)
      out.push_back(std::move(process));
  return out;
}

uint64_t size() {
  MonLock lock(g_registryMonitor);
  return g_byPid ? g_byPid->size() : 0;
}

}  // namespace ProcessRegistry
