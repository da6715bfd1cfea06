#include "fd/item_stream.h"

#include <cerrno>

#include "platform/error.h"

Ref<ItemStream> ItemStream::create(Ref<LocalFileDescriptionFSItem> item) {
  if (!item) return nullptr;
  return new ItemStream(std::move(item));
}

void ItemStream::dropItem() {
  Ref<LocalFileDescriptionFSItem> gone;
  {
    std::lock_guard lock(mutex_);
    gone = std::move(item_);
  }
  // The host file closes here, outside the lock, unless a call still holds the item.
}

Ref<LocalFileDescriptionFSItem> ItemStream::held() const {
  std::lock_guard lock(mutex_);
  return item_;
}

uint64_t ItemStream::noted(uint64_t moved) {
  if (moved == 0) lastEmpty_.store(static_cast<int32_t>(Error::get()), std::memory_order_release);
  return moved;
}

uint64_t ItemStream::read(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) {
  Ref<LocalFileDescriptionFSItem> item = held();
  Error::set(item ? 0 : EBADF);
  return noted(item ? item->read(buffer, size, timeoutMs) : 0);
}

uint64_t ItemStream::write(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) {
  Ref<LocalFileDescriptionFSItem> item = held();
  Error::set(item ? 0 : EBADF);
  return noted(item ? item->write(buffer, size, timeoutMs) : 0);
}

uint64_t ItemStream::readable() {
  Ref<LocalFileDescriptionFSItem> item = held();
  return item ? item->readable() : 0;
}
