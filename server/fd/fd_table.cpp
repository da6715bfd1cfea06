#include "fd/fd_table.h"

#include <algorithm>

#include "fd/fd_log.h"
#include "platform/message.h"
#include "platform/nodes.h"

namespace posix {
LogModule fdTableLog;
}

FDTable::FDTable() : mon_(Mon::create()) {
  Ref<Run> run = new Run();
  for (int32_t fd = 0; fd < 3; ++fd) run->slots.push_back({fd, FileDescriptor{}});
  runs_.push_back(run);
  count_ = 3;
}

FDTable::FDTable(const Ref<FDTable>& parent) : mon_(Mon::create()) {
  checkMonitor("FDTable::FDTable");
  if (!parent) return;
  POSIX_ASSERT(parent->mon_ != 0, "FDTable::FDTable");
  MonLock lock(parent->mon_);
  runs_ = parent->runs_;
  count_ = parent->count_;
}

FDTable::~FDTable() {
  checkMonitor("FDTable::~FDTable");
  {
    MonLock lock(mon_);
    runs_.clear();
  }
  mon_.reset();
}

void FDTable::checkMonitor(const char* function, const std::source_location& caller) const {
  POSIX_ASSERT_AT(mon_ != 0, caller, function);
}

FDTable::Place FDTable::lowerBound(int64_t fd) const {
  auto run = std::partition_point(runs_.begin(), runs_.end(),
                                  [&](const Ref<Run>& r) { return r->slots.back().fd < fd; });
  if (run == runs_.end()) return {runs_.size(), 0};
  const std::vector<Slot>& slots = (*run)->slots;
  auto at = std::lower_bound(slots.begin(), slots.end(), fd,
                             [](const Slot& slot, int64_t number) { return slot.fd < number; });
  return {static_cast<size_t>(run - runs_.begin()), static_cast<size_t>(at - slots.begin())};
}

const FDTable::Slot* FDTable::slotAt(const Place& place) const {
  return place.run < runs_.size() ? &runs_[place.run]->slots[place.at] : nullptr;
}

void FDTable::advance(Place* place) const {
  if (++place->at < runs_[place->run]->slots.size()) return;
  ++place->run;
  place->at = 0;
}

FDTable::Run& FDTable::writable(size_t run) {
  if (runs_[run]->shared()) {
    Ref<Run> own = new Run();
    own->slots = runs_[run]->slots;
    runs_[run] = own;
  }
  return *runs_[run];
}

void FDTable::splitIfLong(size_t run) {
  std::vector<Slot>& slots = runs_[run]->slots;  // writable: just inserted into
  if (slots.size() <= kRunMax) return;
  Ref<Run> tail = new Run();
  auto half = slots.begin() + static_cast<ptrdiff_t>(slots.size() / 2);
  tail->slots.assign(std::make_move_iterator(half), std::make_move_iterator(slots.end()));
  slots.erase(half, slots.end());
  runs_.insert(runs_.begin() + static_cast<ptrdiff_t>(run) + 1, tail);
}

void FDTable::joinIfShort(size_t run) {
  if (runs_[run]->slots.empty()) {
    runs_.erase(runs_.begin() + static_cast<ptrdiff_t>(run));
    return;
  }
  // The smaller neighbour joins when both together fill at most half a run, so that runs stay
  // about a quarter full at least and the table's memory follows its entries.
  size_t other = run;
  for (size_t neighbour : {run - 1, run + 1}) {
    if (neighbour >= runs_.size()) continue;  // also run - 1 for run 0
    if (other == run || runs_[neighbour]->slots.size() < runs_[other]->slots.size())
      other = neighbour;
  }
  if (other == run || runs_[run]->slots.size() + runs_[other]->slots.size() > kRunMax / 2) return;
  size_t first = std::min(run, other);
  std::vector<Slot> later = runs_[first + 1]->slots;
  Run& joined = writable(first);
  joined.slots.insert(joined.slots.end(), later.begin(), later.end());
  runs_.erase(runs_.begin() + static_cast<ptrdiff_t>(first) + 1);
}

int32_t FDTable::insert(FileDescriptor* entry, int32_t minFd) {
  if (!entry || minFd < 0 || minFd >= kMaxDescriptors) return kBadNumber;
  MonLock lock(mon_);
  if (count_ >= kMaxOpen) return kNoRoom;
  // Walk the run of taken numbers that starts at minFd; the first gap is the number.
  Place at = lowerBound(minFd);
  int32_t fd = minFd;
  for (const Slot* slot; (slot = slotAt(at)) != nullptr && slot->fd == fd; advance(&at)) ++fd;
  if (fd >= kMaxDescriptors) return kNoRoom;
  if (runs_.empty()) runs_.push_back(new Run());
  if (at.run == runs_.size()) at = {runs_.size() - 1, runs_.back()->slots.size()};
  Run& run = writable(at.run);
  run.slots.insert(run.slots.begin() + static_cast<ptrdiff_t>(at.at), {fd, std::move(*entry)});
  delete entry;
  ++count_;
  splitIfLong(at.run);
  return fd;
}

bool FDTable::remove(int32_t fd) {
  if (fd < 0) return false;
  MonLock lock(mon_);
  Place at = lowerBound(fd);
  const Slot* slot = slotAt(at);
  if (!slot || slot->fd != fd) return false;
  Run& run = writable(at.run);
  auto gone = run.slots.begin() + static_cast<ptrdiff_t>(at.at);
  FileDescriptor entry = std::move(gone->entry);
  run.slots.erase(gone);
  --count_;
  joinIfShort(at.run);
  return true;  // `entry` goes last: it may drop the description's last reference
}

int32_t FDTable::dup(int32_t oldFd, int32_t newFd, bool replace) {
  checkMonitor("FDTable::dup");
  MonLock lock(mon_);
  const FileDescriptor* old = entry(oldFd);
  if (!old) return kBadNumber;
  auto* copy = new FileDescriptor{old->server, false};
  if (replace) remove(newFd);
  int32_t fd = insert(copy, newFd);
  if (fd < 0) delete copy;
  return fd;
}

void FDTable::visit(const std::function<void(int32_t, const FileDescriptor&)>& visit) const {
  MonLock lock(mon_);
  for (const Ref<Run>& run : runs_)
    for (const Slot& slot : run->slots) visit(slot.fd, slot.entry);
}

uint32_t FDTable::size() const {
  MonLock lock(mon_);
  return count_;
}

const FileDescriptor* FDTable::entry(int32_t fd) const {
  if (fd < 0) return nullptr;
  MonLock lock(mon_);
  const Slot* slot = slotAt(lowerBound(fd));
  return slot && slot->fd == fd ? &slot->entry : nullptr;
}

namespace {

template <class T>
bool writeRaw(const Ref<OutMsg>& out, const T& value) {
  return out->write(&value, sizeof value, kForever) == sizeof value;
}

bool writeAll(const Ref<Interfaces::Stream>& out, const std::vector<uint8_t>& bytes) {
  return out->write(Interfaces::MemDesc::direct(bytes.data(), bytes.size()), bytes.size(),
                    kForever) == bytes.size();
}

// The i32 type and u64 number that a continuation record holds.
constexpr uint64_t kContinuationSize = 12;

}  // namespace

int32_t FDTable::serialize(const Ref<Interfaces::Stream>& out, uint64_t first,
                           uint64_t maxBytes) const {
  checkMonitor("FDTable::serialize");
  if (!out) return 0;
  // Only the descriptor service's thread changes a table once it is built, and it is the one
  // that serialises; the monitor is taken all the same, so a table read from elsewhere (tests,
  // diagnostics) never sees an entry half changed.
  MonLock lock(mon_);
  uint64_t written = 0;
  const int32_t total = static_cast<int32_t>(count_);
  Place at = lowerBound(static_cast<int64_t>(std::min<uint64_t>(first, INT64_MAX)));
  for (const Slot* slot; (slot = slotAt(at)) != nullptr; advance(&at)) {
    const FileDescriptor* entry = &slot->entry;
    if (!entry->server) {
      POSIX_LOG(posix::fdTableLog.handle, 3, "Tried to serialize invalid fd: " << slot->fd);
      continue;
    }
    // Each record is put together first and written with one call, so that `out` takes all
    // of it or none.
    Ref<Services::Nodes::Provider> provider =
        Services::Nodes::Provider::create(entry->server->node(), 0);
    Ref<OutMsg> record = OutMsg::create();
    int32_t type = entry->server->type();
    uint64_t number = static_cast<uint64_t>(slot->fd);
    if (!provider || !writeRaw(record, type) || !writeRaw(record, number) ||
        !provider->serialize(record)) {
      return total;
    }
    if (written + record->data().size() + kContinuationSize > maxBytes) {
      Ref<OutMsg> more = OutMsg::create();
      int32_t moreType = kTypeTableMore;
      if (writeRaw(more, moreType) && writeRaw(more, number)) writeAll(out, more->data());
      return total;
    }
    if (!writeAll(out, record->data())) return total;
    written += record->data().size();
  }
  int32_t end = kTypeTableEnd;
  out->write(Interfaces::MemDesc::direct(&end, sizeof end), sizeof end, kForever);
  return total;
}
