#include "fd/description_holders.h"

#include <atomic>

namespace {

std::atomic<DescriptionHolders::TableOf> g_tableOf{nullptr};

}  // namespace

void DescriptionHolders::setLookup(TableOf lookup) {
  g_tableOf.store(lookup, std::memory_order_release);
}

bool DescriptionHolders::holds(const ProcIdentity& identity, const FileDescriptionServer* description) {
  TableOf tableOf = g_tableOf.load(std::memory_order_acquire);
  Ref<FDTable> table = tableOf && description ? tableOf(identity) : nullptr;
  if (!table) return false;
  // Through visit, which any layout of the table offers; a bind is rare next to reads and
  // writes, and a table holds at most FDTable::kMaxOpen entries.
  bool held = false;
  table->visit([&](int32_t, const FileDescriptor& entry) { held = held || entry.server.get() == description; });
  return held;
}

Ref<HolderGate> HolderGate::create(FileDescriptionServer* description, Ref<ConMan> inner) {
  if (!inner) return nullptr;
  return new HolderGate(description, std::move(inner));
}

bool HolderGate::connect(const Ref<ChnLink>& link) {
  if (!link) return false;
  // Held strongly for the look, so that the address compared is this description's.
  Ref<FileDescriptionServer> description = description_.lock();
  if (!DescriptionHolders::holds(link->peerIdentity(), description.get())) return false;
  return inner_->connect(link);
}
