#include "process/process_registry.h"

#include "process/posix_process.h"

namespace {
Ref<TVector<WeakRef<PosixProcess>>> g_registry;  // guarded by g_registryMonitor
Ref<Mon> g_registryMonitor;
}  // namespace

namespace ProcessRegistry {

void create() { g_registry = TVector<WeakRef<PosixProcess>>::create(); }
void release() { g_registry.reset(); }
void createMonitor() { g_registryMonitor = Mon::create(); }
void releaseMonitor() { g_registryMonitor.reset(); }

TVector<WeakRef<PosixProcess>>* listing() { return g_registry.get(); }
Mon* monitor() { return g_registryMonitor.get(); }

void add(const Ref<PosixProcess>& process) {
  MonLock lock(g_registryMonitor);
  if (g_registry) g_registry->append(WeakRef<PosixProcess>(process));
}

void remove(PosixProcess* process) {
  MonLock lock(g_registryMonitor);
  if (g_registry) g_registry->removeValue(WeakRef<PosixProcess>(process));
}

uint64_t size() {
  MonLock lock(g_registryMonitor);
  return g_registry ? g_registry->count() : 0;
}

}  // namespace ProcessRegistry
