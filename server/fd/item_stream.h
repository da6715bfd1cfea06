// The byte stream of an opened item as its description serves it. It passes every read and
// write to the item, and keeps why the last one that moved nothing did so: a stream answers
// only counts, and a client tells the end of the data, "nothing yet" and a host error (a FIFO
// without a reader) apart by asking the item service afterwards.
//
// The description lets go of the item through dropItem() when it dies, on the thread that
// closed its last descriptor: the host file then closes at once, not when the close queue gets
// to the description's multiplex, so that a FIFO whose only reader was closed is without a
// reader for the very next open. A call already inside the item keeps it until that call ends.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "platform/local_file.h"
#include "platform/stream.h"

class ItemStream : public Object, public virtual Interfaces::Stream {
 public:
  // Null when `item` is null.
  static Ref<ItemStream> create(Ref<LocalFileDescriptionFSItem> item);

  // The host errno of the last read or write that moved nothing: 0 when the host answered the
  // end of the data, EAGAIN when nothing could move within the call's time-out, EBADF once the
  // item was released. Shared by every holder of the description: a holder that asks right
  // after its own call hears of the last one, which is its own unless another holder's empty
  // call came in between.
  int32_t lastEmpty() const { return lastEmpty_.load(std::memory_order_acquire); }
  // Lets go of the item; later calls move nothing. Not named release(): that name is the
  // reference count's, and a Ref<ItemStream> would call this one instead and never free it.
  void dropItem();

  uint32_t dataKind() override { return 1; }
  Interfaces::MemDesc map(Ref<Object> /*client*/) override { return {}; }
  void unmap(Ref<Object> /*client*/) override {}
  uint64_t read(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  uint64_t write(Interfaces::MemDesc buffer, uint64_t size, uint32_t timeoutMs) override;
  uint64_t readable() override;
  uint64_t control(uint32_t /*code*/, uint64_t /*argument*/) override { return 0; }

 private:
  explicit ItemStream(Ref<LocalFileDescriptionFSItem> item) : item_(std::move(item)) {}
  Ref<LocalFileDescriptionFSItem> held() const;
  // Notes the outcome of a call that moved `moved` bytes; answers `moved`.
  uint64_t noted(uint64_t moved);

  mutable std::mutex mutex_;
  Ref<LocalFileDescriptionFSItem> item_;  // guarded by mutex_; null once released
  std::atomic<int32_t> lastEmpty_{0};
};
