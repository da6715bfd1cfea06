#include "process/process_group.h"

namespace {
// Every group ever made, weakly; dead slots are dropped by find() and create().
Ref<TVector<WeakRef<PosixProcessGroup>>> g_groupRegistry;

// Drops registry slots whose group has died. Done when a group is made as well as on lookup, so
// that a long-running server whose clients come and go does not grow the registry for ever.
void compactRegistry() {
  for (uint64_t i = 0; i < g_groupRegistry->count();) {
    if (g_groupRegistry->get(i).lock()) ++i; else g_groupRegistry->removeAt(i);
  }
}
}  // namespace

void PosixProcessGroup::createRegistry() { g_groupRegistry = TVector<WeakRef<PosixProcessGroup>>::create(); }
void PosixProcessGroup::releaseRegistry() { g_groupRegistry.reset(); }
uint64_t PosixProcessGroup::registrySize() { return g_groupRegistry ? g_groupRegistry->count() : 0; }

PosixProcessGroup::PosixProcessGroup(uint64_t id)
    : id_(id), members_(TList<WeakRef<PosixProcess>>::create()) {}

Ref<PosixProcessGroup> PosixProcessGroup::create(const Ref<PosixProcess>& leader) {
  Ref<PosixProcessGroup> group = new PosixProcessGroup(leader ? leader->pid() : 0);
  if (leader) group->members_->append(WeakRef<PosixProcess>(leader));
  if (g_groupRegistry) {
    compactRegistry();
    g_groupRegistry->append(WeakRef<PosixProcessGroup>(group));
  }
  return group;
}

Ref<PosixProcessGroup> PosixProcessGroup::find(uint64_t id) {
  if (!g_groupRegistry) return nullptr;
  for (uint64_t i = 0; i < g_groupRegistry->count();) {
    Ref<PosixProcessGroup> group = g_groupRegistry->get(i).lock();
    if (!group) {
      g_groupRegistry->removeAt(i);
      continue;
    }
    if (group->id_ == id) return group;
    ++i;
  }
  return nullptr;
}

bool PosixProcessGroup::addMember(const Ref<PosixProcess>& process) {
  WeakRef<PosixProcess> member(process);
  std::lock_guard lock(mutex_);
  if (members_->contains(member)) return false;
  // Dead members are never signalled or matched; dropping them here keeps the list as long as
  // the group's living membership instead of every process that ever joined.
  members_->removeIf([](const WeakRef<PosixProcess>& m) { return !m.lock(); });
  members_->append(member);
  return true;
}

bool PosixProcessGroup::removeMember(const Ref<PosixProcess>& process) {
  WeakRef<PosixProcess> member(process);
  std::lock_guard lock(mutex_);
  return members_->remove(member);
}

std::vector<Ref<PosixProcess>> PosixProcessGroup::members() const {
  std::vector<Ref<PosixProcess>> living;
  std::lock_guard lock(mutex_);
  members_->forEach([&](const WeakRef<PosixProcess>& weak) {
    if (Ref<PosixProcess> member = weak.lock()) living.push_back(std::move(member));
  });
  return living;
}

uint32_t PosixProcessGroup::signalAll(const Ref<PosixProcess>& sender, uint32_t signum,
                                      const StatusRecord* record) {
  // Members the sender may not control are skipped silently, and the answer is 1 even when
  // nobody received the signal. Signalled outside the lock: a member's end takes it.
  for (const Ref<PosixProcess>& member : members())
    if (member->mayControl(sender)) member->signal(sender, signum, record);
  return 1;
}

uint64_t PosixProcessGroup::livingMembers() const { return members().size(); }
