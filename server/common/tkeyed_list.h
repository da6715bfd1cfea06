// A list of references in order of appending, with an index by a number (a pid) beside it:
// appending, removing a given value and finding the oldest value of a number cost the same
// however long the list is. Several values may share a number; each is listed once per append.
//
// No lock of its own: the owner guards it.
#pragma once

#include <cstdint>
#include <iterator>
#include <list>
#include <unordered_map>
#include <utility>

#include "platform/object.h"

template <class T>
class TKeyedList {
 public:
  uint64_t count() const { return order_.size(); }

  void append(uint64_t key, Ref<T> value) {
    order_.push_back({key, serial_++, std::move(value)});
    byKey_.emplace(key, std::prev(order_.end()));
  }

  // Removes the listing of `value` under `key`; false when there is none.
  bool remove(uint64_t key, const T* value) {
    auto [at, end] = byKey_.equal_range(key);
    for (; at != end; ++at) {
      if (at->second->value.get() != value) continue;
      order_.erase(at->second);
      byKey_.erase(at);
      return true;
    }
    return false;
  }

  // The oldest value, or null.
  Ref<T> first() const { return order_.empty() ? nullptr : order_.front().value; }

  // The oldest value listed under `key`, or null.
  Ref<T> firstWithKey(uint64_t key) const {
    auto [at, end] = byKey_.equal_range(key);
    const Slot* oldest = nullptr;
    for (; at != end; ++at)
      if (!oldest || at->second->serial < oldest->serial) oldest = &*at->second;
    return oldest ? oldest->value : nullptr;
  }

  // The oldest value for which `match` answers true, or null (visits the list in order).
  template <class Match>
  Ref<T> firstMatching(Match match) const {
    for (const Slot& slot : order_)
      if (match(*slot.value)) return slot.value;
    return nullptr;
  }

  template <class Visit>
  void forEach(Visit visit) const {
    for (const Slot& slot : order_) visit(slot.value);
  }

  void clear() {
    byKey_.clear();
    order_.clear();
  }

  // Exchanges the contents (the index stays valid: list nodes do not move).
  void swap(TKeyedList& other) noexcept {
    order_.swap(other.order_);
    byKey_.swap(other.byKey_);
    std::swap(serial_, other.serial_);
  }

 private:
  struct Slot {
    uint64_t key;
    uint64_t serial;  // order of appending, to tell the oldest of one key
    Ref<T> value;
  };
  std::list<Slot> order_;
  std::unordered_multimap<uint64_t, typename std::list<Slot>::iterator> byKey_;
  uint64_t serial_ = 0;
};
