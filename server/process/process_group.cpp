#include "process/process_group.h"

namespace {
// Every living group by identifier, oldest first (a pid the host hands on may lead a second
// group while the first still has members). A group removes itself when it dies.
using ById = std::unordered_map<uint64_t, std::vector<WeakRef<PosixProcessGroup>>>;
std::mutex g_registryLock;
ById* g_groupRegistry = nullptr;  // guarded by g_registryLock
}  // namespace

void PosixProcessGroup::createRegistry() {
  std::lock_guard lock(g_registryLock);
  g_groupRegistry = new ById();
}
void PosixProcessGroup::releaseRegistry() {
  std::lock_guard lock(g_registryLock);
  delete g_groupRegistry;
  g_groupRegistry = nullptr;
}
uint64_t PosixProcessGroup::registrySize() {
  std::lock_guard lock(g_registryLock);
  uint64_t listed = 0;
  if (g_groupRegistry)
    for (const auto& [id, groups] : *g_groupRegistry) listed += groups.size();
  return listed;
}

PosixProcessGroup::PosixProcessGroup(uint64_t id) : id_(id) {}

PosixProcessGroup::~PosixProcessGroup() {
  std::lock_guard lock(g_registryLock);
  if (!g_groupRegistry) return;
  auto at = g_groupRegistry->find(id_);
  if (at == g_groupRegistry->end()) return;
  std::erase_if(at->second, [this](const WeakRef<PosixProcessGroup>& g) { return g.get() == this; });
  if (at->second.empty()) g_groupRegistry->erase(at);
}

Ref<PosixProcessGroup> PosixProcessGroup::create(const Ref<PosixProcess>& leader) {
  Ref<PosixProcessGroup> group = new PosixProcessGroup(leader ? leader->pid() : 0);
  if (leader) group->addMember(leader);
  std::lock_guard lock(g_registryLock);
  if (g_groupRegistry) (*g_groupRegistry)[group->id_].push_back(WeakRef<PosixProcessGroup>(group));
  return group;
}

Ref<PosixProcessGroup> PosixProcessGroup::find(uint64_t id) {
  std::lock_guard lock(g_registryLock);
  if (!g_groupRegistry) return nullptr;
  auto at = g_groupRegistry->find(id);
  if (at == g_groupRegistry->end()) return nullptr;
  // A group that is dying is still listed until its destructor takes this lock.
  for (const WeakRef<PosixProcessGroup>& listed : at->second)
    if (Ref<PosixProcessGroup> group = listed.lock()) return group;
  return nullptr;
}

bool PosixProcessGroup::addMember(const Ref<PosixProcess>& process) {
  std::lock_guard lock(mutex_);
  if (!joined_.emplace(process.get(), nextSerial_).second) return false;
  members_.emplace(nextSerial_++, WeakRef<PosixProcess>(process));
  return true;
}

bool PosixProcessGroup::removeMember(const PosixProcess* process) {
  std::lock_guard lock(mutex_);
  auto at = joined_.find(process);
  if (at == joined_.end()) return false;
  members_.erase(at->second);
  joined_.erase(at);
  return true;
}

std::vector<Ref<PosixProcess>> PosixProcessGroup::members() const {
  uint64_t from = 0;
  return membersFrom(&from, UINT64_MAX, SIZE_MAX);
}

uint64_t PosixProcessGroup::nextSerial() const {
  std::lock_guard lock(mutex_);
  return nextSerial_;
}

std::vector<Ref<PosixProcess>> PosixProcessGroup::membersFrom(uint64_t* from, uint64_t before,
                                                              size_t count) const {
  // Declared before the lock: a member whose last reference goes when the caller lets go of it
  // leaves the group, which takes the lock.
  std::vector<Ref<PosixProcess>> living;
  std::lock_guard lock(mutex_);
  auto at = members_.lower_bound(*from);
  for (; at != members_.end() && at->first < before && living.size() < count; ++at)
    if (Ref<PosixProcess> member = at->second.lock()) living.push_back(std::move(member));
  *from = at != members_.end() && at->first < before ? at->first : before;
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

uint64_t PosixProcessGroup::livingMembers() const {
  std::lock_guard lock(mutex_);
  return members_.size();
}
