// The modules met during one crash dump: every module of the module list, and the modules the
// stack trace had to ask the kernel about. Turns an instruction address into a module and an
// offset within it.
#pragma once

#include <cstdint>

#include "common/tvector.h"
#include "platform/binary_services.h"

class ModuleHistory : public Object {
 public:
  static Ref<ModuleHistory> create();

  void add(uint64_t first, uint64_t end, const Ref<String>& name);
  uint64_t count() const { return modules_->count(); }
  // The entry at `index`; null beyond the last one.
  Ref<ModuleInfo> at(uint64_t index) const { return modules_->get(index); }
  // The index of the first entry whose range holds `address`, or count() when none does.
  uint64_t find(uint64_t address) const;

  // Publishes `history` as the one of the dump in progress, so that a debugger looking at a
  // hung or nested dump finds it. Dumps that run at the same moment replace each other here;
  // each keeps using its own history.
  static void setCurrent(const Ref<ModuleHistory>& history);
  // Withdraws `history` if it is still the published one.
  static void clearCurrent(const Ref<ModuleHistory>& history);

 private:
  explicit ModuleHistory(Ref<TVector<Ref<ModuleInfo>>> modules) : modules_(std::move(modules)) {}
  // Only the dump that made the history touches it.
  Ref<TVector<Ref<ModuleInfo>>> modules_;
};
