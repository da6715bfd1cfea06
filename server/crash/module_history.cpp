#include "crash/module_history.h"

#include <atomic>

namespace {
// The published history, holding one strong reference. Swapped atomically, because any
// thread may crash at any time.
std::atomic<ModuleHistory*> g_current{nullptr};
}  // namespace

Ref<ModuleHistory> ModuleHistory::create() {
  Ref<TVector<Ref<ModuleInfo>>> modules = TVector<Ref<ModuleInfo>>::create();
  if (!modules) return nullptr;
  return new ModuleHistory(modules);
}

void ModuleHistory::add(uint64_t first, uint64_t end, const Ref<String>& name) {
  modules_->append(ModuleInfo::create(first, end, name));
}

uint64_t ModuleHistory::find(uint64_t address) const {
  uint64_t count = modules_->count();
  for (uint64_t i = 0; i < count; ++i)
    if (modules_->get(i)->contains(address)) return i;
  return count;
}

void ModuleHistory::setCurrent(const Ref<ModuleHistory>& history) {
  ModuleHistory* next = history.get();
  if (next) next->addRef();
  if (ModuleHistory* previous = g_current.exchange(next)) previous->release();
}

void ModuleHistory::clearCurrent(const Ref<ModuleHistory>& history) {
  ModuleHistory* expected = history.get();
  if (expected && g_current.compare_exchange_strong(expected, nullptr)) expected->release();
}
