#include "process/process_registry.h"

#include <unordered_map>

#include "process/posix_process.h"

namespace {
using ByPid = std::unordered_multimap<uint64_t, WeakRef<PosixProcess>>;

Ref<TVector<WeakRef<PosixProcess>>> g_registry;  // guarded by g_registryMonitor
ByPid* g_byPid = nullptr;                        // guarded by g_registryMonitor: g_registry by pid
uint64_t g_sweptTo = 0;                          // guarded by g_registryMonitor: listings left
Ref<Mon> g_registryMonitor;

bool dead(const WeakRef<PosixProcess>& listed) { return !listed.lock(); }

// Drops every listing whose record has died.
void sweep() {
  Ref<TVector<WeakRef<PosixProcess>>> living = TVector<WeakRef<PosixProcess>>::create();
  for (uint64_t i = 0; i < g_registry->count(); ++i)
    if (!dead(g_registry->get(i))) living->append(g_registry->get(i));
  g_registry = living;
  std::erase_if(*g_byPid, [](const ByPid::value_type& listed) { return dead(listed.second); });
  g_sweptTo = g_registry->count();
}
}  // namespace

namespace ProcessRegistry {

void create() {
  g_registry = TVector<WeakRef<PosixProcess>>::create();
  g_byPid = new ByPid();
  g_sweptTo = 0;
}
void release() {
  g_registry.reset();
  delete g_byPid;
  g_byPid = nullptr;
}
void createMonitor() { g_registryMonitor = Mon::create(); }
void releaseMonitor() { g_registryMonitor.reset(); }

TVector<WeakRef<PosixProcess>>* listing() { return g_registry.get(); }
Mon* monitor() { return g_registryMonitor.get(); }

void add(const Ref<PosixProcess>& process) {
  MonLock lock(g_registryMonitor);
  if (!g_registry) return;
  if (g_registry->count() >= 2 * g_sweptTo + 64) sweep();
  g_registry->append(WeakRef<PosixProcess>(process));
  g_byPid->emplace(process->pid(), WeakRef<PosixProcess>(process));
}

void remove(PosixProcess* process) {
  MonLock lock(g_registryMonitor);
  if (!g_registry) return;
  g_registry->removeValue(WeakRef<PosixProcess>(process));
  auto [first, end] = g_byPid->equal_range(process->pid());
  for (auto at = first; at != end; ++at) {
    if (at->second.get() != process) continue;
    g_byPid->erase(at);
    break;
  }
}

Ref<PosixProcess> find(const ProcIdentity& identity) {
  MonLock lock(g_registryMonitor);
  if (!g_byPid) return nullptr;
  auto [at, end] = g_byPid->equal_range(identity.pid);
  while (at != end) {
    Ref<PosixProcess> process = at->second.lock();
    if (!process) {
      at = g_byPid->erase(at);
      continue;
    }
    if (process->identity() == identity) return process;
    ++at;
  }
  return nullptr;
}

uint64_t size() {
  MonLock lock(g_registryMonitor);
  return g_registry ? g_registry->count() : 0;
}

}  // namespace ProcessRegistry
