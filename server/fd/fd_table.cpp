#include "fd/fd_table.h"

#include <algorithm>

#include "fd/fd_log.h"
#include "platform/message.h"
#include "platform/nodes.h"

namespace posix {
LogModule fdTableLog;
}

FDTable::FDTable() : mon_(Mon::create()) {
  for (int32_t fd = 0; fd < 3; ++fd) slots_.push_back({fd, new FileDescriptor{}});
}

FDTable::FDTable(const Ref<FDTable>& parent) : mon_(Mon::create()) {
  checkMonitor(45, "FDTable::FDTable");
  if (!parent) return;
  POSIX_ASSERT(parent->mon_, "ptr->_mon != 0", 49, "FDTable::FDTable");
  MonLock lock(parent->mon_);
  slots_.reserve(parent->slots_.size());
  for (const Slot& slot : parent->slots_)
    slots_.push_back({slot.fd, new FileDescriptor{slot.entry->server, slot.entry->closeOnExec}});
}

FDTable::~FDTable() {
  checkMonitor(83, "FDTable::~FDTable");
  {
    MonLock lock(mon_);
    for (Slot& slot : slots_) delete slot.entry;
    slots_.clear();
  }
  mon_.reset();
}

void FDTable::checkMonitor(uint64_t line, const char* function) const {
  POSIX_ASSERT(mon_, "_mon != 0", line, function);
}

std::vector<FDTable::Slot>::const_iterator FDTable::lowerBound(int64_t fd) const {
  return std::lower_bound(slots_.begin(), slots_.end(), fd,
                          [](const Slot& slot, int64_t number) { return slot.fd < number; });
}

int32_t FDTable::insert(FileDescriptor* entry, int32_t minFd) {
  if (!entry || minFd < 0 || minFd >= kMaxDescriptors) return kBadNumber;
  MonLock lock(mon_);
  if (slots_.size() >= kMaxOpen) return kNoRoom;
  // Walk the run of taken numbers that starts at minFd; the first gap is the number.
  auto at = lowerBound(minFd);
  int32_t fd = minFd;
  for (; at != slots_.end() && at->fd == fd; ++at) ++fd;
  if (fd >= kMaxDescriptors) return kNoRoom;
  slots_.insert(at, {fd, entry});
  return fd;
}

bool FDTable::remove(int32_t fd) {
  if (fd < 0) return false;
  MonLock lock(mon_);
  auto at = lowerBound(fd);
  if (at == slots_.end() || at->fd != fd) return false;
  FileDescriptor* entry = at->entry;
  slots_.erase(at);
  delete entry;  // may drop the description's last reference
  return true;
}

int32_t FDTable::dup(int32_t oldFd, int32_t newFd, bool replace) {
  checkMonitor(174, "FDTable::dup");
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
  for (const Slot& slot : slots_) visit(slot.fd, *slot.entry);
}

uint32_t FDTable::size() const {
  MonLock lock(mon_);
  return static_cast<uint32_t>(slots_.size());
}

const FileDescriptor* FDTable::entry(int32_t fd) const {
  if (fd < 0) return nullptr;
  MonLock lock(mon_);
  auto at = lowerBound(fd);
  return at != slots_.end() && at->fd == fd ? at->entry : nullptr;
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
  checkMonitor(251, "FDTable::serialize");
  if (!out) return 0;
  // Only the descriptor service's thread changes a table once it is built, and it is the one
  // that serialises; the monitor is taken all the same, so a table read from elsewhere (tests,
  // diagnostics) never sees an entry half changed.
  MonLock lock(mon_);
  uint64_t written = 0;
  for (auto at = lowerBound(static_cast<int64_t>(std::min<uint64_t>(first, INT64_MAX)));
       at != slots_.end(); ++at) {
    const FileDescriptor* entry = at->entry;
    if (!entry->server) {
      POSIX_LOG(posix::fdTableLog.handle, 3, "Tried to serialize invalid fd: " << at->fd);
      continue;
    }
    // Each record is put together first and written with one call, so that `out` takes all
    // of it or none.
    Ref<Services::Nodes::Provider> provider =
        Services::Nodes::Provider::create(entry->server->node(), 0);
    Ref<OutMsg> record = OutMsg::create();
    int32_t type = entry->server->type();
    uint64_t number = static_cast<uint64_t>(at->fd);
    if (!provider || !writeRaw(record, type) || !writeRaw(record, number) ||
        !provider->serialize(record)) {
      return static_cast<int32_t>(slots_.size());
    }
    if (written + record->data().size() + kContinuationSize > maxBytes) {
      Ref<OutMsg> more = OutMsg::create();
      int32_t moreType = kTypeTableMore;
      if (writeRaw(more, moreType) && writeRaw(more, number)) writeAll(out, more->data());
      return static_cast<int32_t>(slots_.size());
    }
    if (!writeAll(out, record->data())) return static_cast<int32_t>(slots_.size());
    written += record->data().size();
  }
  int32_t end = kTypeTableEnd;
  out->write(Interfaces::MemDesc::direct(&end, sizeof end), sizeof end, kForever);
  return static_cast<int32_t>(slots_.size());
}
