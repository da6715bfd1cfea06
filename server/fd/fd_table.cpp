#include "fd/fd_table.h"

#include "fd/fd_log.h"
#include "platform/message.h"
#include "platform/nodes.h"

namespace posix {
LogModule fdTableLog;
}

FDTable::FDTable() : table_(TVector<FileDescriptor*>::create(3)), mon_(Mon::create()) {
  for (uint64_t fd = 0; fd < 3; ++fd) table_->set(fd, new FileDescriptor{});
  open_ = 3;
}

FDTable::FDTable(const Ref<FDTable>& parent)
    : table_(TVector<FileDescriptor*>::create(parent ? parent->slotCount() : 0)), mon_(Mon::create()) {
  POSIX_ASSERT(table_, "table != 0", 44, "FDTable::FDTable");
  POSIX_ASSERT(mon_, "_mon != 0", 45, "FDTable::FDTable");
  if (!parent) return;
  POSIX_ASSERT(parent->mon_, "ptr->_mon != 0", 49, "FDTable::FDTable");
  POSIX_ASSERT(parent->table_, "ptr->table != 0", 50, "FDTable::FDTable");
  MonLock lock(parent->mon_);
  for (uint64_t fd = 0; fd < table_->count(); ++fd) {
    const FileDescriptor* source = parent->table_->get(fd);
    table_->set(fd, source ? new FileDescriptor{source->server, source->closeOnExec} : nullptr);
  }
  open_ = parent->open_;
}

FDTable::~FDTable() {
  checkInvariants(83, 84, "FDTable::~FDTable");
  {
    MonLock lock(mon_);
    for (uint64_t fd = 0; fd < table_->count(); ++fd) {
      FileDescriptor* entry = table_->get(fd);
      if (!entry) continue;
      table_->set(fd, nullptr);
      delete entry;
    }
  }
  mon_.reset();
  table_.reset();
}

void FDTable::checkInvariants(uint64_t monLine, uint64_t tableLine, const char* function) const {
  POSIX_ASSERT(mon_, "_mon != 0", monLine, function);
  POSIX_ASSERT(table_, "table != 0", tableLine, function);
}

int32_t FDTable::insert(FileDescriptor* entry, int32_t minFd) {
  if (!entry || minFd < 0 || minFd >= kMaxDescriptors) return -1;
  MonLock lock(mon_);
  if (open_ >= kMaxOpen) return -1;
  uint64_t count = table_->count();
  uint64_t min = static_cast<uint64_t>(minFd);
  if (min < count) {
    for (uint64_t fd = min; fd < count; ++fd) {
      if (table_->get(fd)) continue;
      table_->set(fd, entry);
      ++open_;
      return static_cast<int32_t>(fd);
    }
  } else {
    // Numbers between the old end and minFd become free slots.
    table_->resize(min);
    for (uint64_t fd = count; fd < min; ++fd) table_->set(fd, nullptr);
  }
  if (table_->count() >= static_cast<uint64_t>(kMaxDescriptors)) return -1;
  table_->append(entry);
  ++open_;
  return static_cast<int32_t>(table_->count() - 1);
}

bool FDTable::remove(int32_t fd) {
  if (fd < 0) return false;
  MonLock lock(mon_);
  FileDescriptor* entry = table_->get(static_cast<uint64_t>(fd));
  if (!entry) return false;
  table_->set(static_cast<uint64_t>(fd), nullptr);
  --open_;
  delete entry;
  return true;
}

int32_t FDTable::dup(int32_t oldFd, int32_t newFd, bool replace) {
  checkInvariants(174, 175, "FDTable::dup");
  MonLock lock(mon_);
  if (oldFd < 0 || static_cast<uint64_t>(oldFd) >= table_->count()) return -1;
  const FileDescriptor* old = table_->get(static_cast<uint64_t>(oldFd));
  if (!old) return -1;
  auto* copy = new FileDescriptor{old->server, false};
  if (replace) remove(newFd);
  int32_t fd = insert(copy, newFd);
  if (fd < 0) delete copy;
  return fd;
}

uint64_t FDTable::slotCount() const {
  MonLock lock(mon_);
  return table_->count();
}

const FileDescriptor* FDTable::entry(int32_t fd) const {
  if (fd < 0) return nullptr;
  MonLock lock(mon_);
  return table_->get(static_cast<uint64_t>(fd));
}

namespace {

template <class T>
bool writeRaw(const Ref<OutMsg>& out, const T& value) {
  return out->write(&value, sizeof value, kForever) == sizeof value;
}

}  // namespace

int32_t FDTable::serialize(const Ref<Interfaces::Stream>& out) const {
  checkInvariants(251, 252, "FDTable::serialize");
  if (!out) return 0;
  // Only the descriptor service's thread changes a table once it is built, and it is the one
  // that serialises; the monitor is taken all the same, so a table read from elsewhere (tests,
  // diagnostics) never sees a slot half changed.
  MonLock lock(mon_);
  int32_t count = 0;
  bool whole = true;
  for (uint64_t fd = 0; fd < table_->count(); ++fd) {
    const FileDescriptor* entry = table_->get(fd);
    if (!entry) continue;
    ++count;
    if (!entry->server) {
      POSIX_LOG(posix::fdTableLog.handle, 3, "Tried to serialize invalid fd: " << fd);
      continue;
    }
    if (!whole) continue;
    // The record is put together first and written with one call, so that `out` takes all
    // of it or none (a stream that fills up would otherwise keep the first fields alone).
    Ref<Services::Nodes::Provider> provider =
        Services::Nodes::Provider::create(entry->server->node(), 0);
    Ref<OutMsg> record = OutMsg::create();
    int32_t type = entry->server->type();
    whole = provider && writeRaw(record, type) && writeRaw(record, fd) && provider->serialize(record);
    if (whole) {
      const std::vector<uint8_t>& bytes = record->data();
      whole = out->write(Interfaces::MemDesc::direct(bytes.data(), bytes.size()), bytes.size(),
                         kForever) == bytes.size();
    }
  }
  if (whole) {
    int32_t end = kTypeTableEnd;
    out->write(Interfaces::MemDesc::direct(&end, sizeof end), sizeof end, kForever);
  }
  return count;
}
