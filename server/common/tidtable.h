// The identifier table of a service's connections: it hands out small numbers and keeps a
// value under each. Free numbers sit on a stack, so the number freed last is handed out first;
// on a fresh table they come out as 15, 14, ... 1. Stack position 0 holds identifier 0, which
// is never handed out, so 0 can stand for "no identifier" in a link's tag.
//
// No lock of its own: each table is touched only by the thread that runs its service.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/object.h"

template <class T>
class TIdTable : public Object {
 public:
  static constexpr uint64_t kInitialCapacity = 16;

  static Ref<TIdTable> create() { return new TIdTable(); }

  uint64_t capacity() const { return capacity_; }

  // Stores `value` and answers its identifier; 0 when no identifier can be had.
  uint64_t add(T value) {
    if (freeTop_ == 0) grow();
    if (freeTop_ == 0) return 0;
    uint64_t id = freeIds_[freeTop_--];
    entries_[id] = std::move(value);
    used_[id] = 1;
    return id;
  }

  // Frees `id` and drops its value; unknown and free identifiers are ignored.
  void remove(uint64_t id) {
    if (id >= capacity_ || !used_[id]) return;
    freeIds_[++freeTop_] = id;
    entries_[id] = T{};
    used_[id] = 0;
  }

  T get(uint64_t id) const { return id < capacity_ && used_[id] ? entries_[id] : T{}; }

  // The first used entry, from identifier 1 upward, for which `match` answers true.
  template <class Match>
  T find(Match match) const {
    for (uint64_t id = 1; id < capacity_; ++id) {
      if (!used_[id] || !entries_[id]) continue;
      T entry = entries_[id];
      if (match(entry)) return entry;
    }
    return T{};
  }

  ~TIdTable() override {
    for (uint64_t id = capacity_; id-- > 0;) entries_[id] = T{};
    delete[] freeIds_;
    delete[] used_;
    delete[] entries_;
  }

 private:
  TIdTable()
      : capacity_(kInitialCapacity),
        freeTop_(kInitialCapacity - 1),
        freeIds_(new uint64_t[kInitialCapacity]),
        used_(new uint8_t[kInitialCapacity]()),
        entries_(new T[kInitialCapacity]) {
    for (uint64_t i = 0; i < kInitialCapacity; ++i) freeIds_[i] = i;
  }

  // Doubles the table. The new identifiers go on the stack above the old free ones in
  // ascending order, so the next add answers the new capacity minus one.
  void grow() {
    uint64_t capacity = capacity_ * 2;
    auto* freeIds = new uint64_t[capacity];
    auto* used = new uint8_t[capacity]();
    auto* entries = new T[capacity];
    for (uint64_t i = 0; i < capacity_; ++i) {
      used[i] = used_[i];
      entries[i] = std::move(entries_[i]);
    }
    for (uint64_t i = 0; i <= freeTop_; ++i) freeIds[i] = freeIds_[i];
    uint64_t top = freeTop_;
    for (uint64_t id = capacity_; id < capacity; ++id) freeIds[++top] = id;
    delete[] freeIds_;
    delete[] used_;
    delete[] entries_;
    freeIds_ = freeIds;
    used_ = used;
    entries_ = entries;
    freeTop_ = top;
    capacity_ = capacity;
  }

  uint64_t capacity_;
  uint64_t freeTop_;   // top of the free-identifier stack; position 0 is never handed out
  uint64_t* freeIds_;  // stack of free identifiers, positions 0..freeTop_ valid
  uint8_t* used_;      // 1 where the slot holds an entry
  T* entries_;         // the value under each identifier; empty where free
};
