// The system's generic containers of values: a set interface, an indexed interface and the
// growable array behind both. Reading beyond the end gives the empty value and writing beyond
// the end is ignored, so callers never index out of bounds.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/object.h"

template <class T>
class TSet : public Object {
 public:
  virtual uint64_t count() const = 0;
  virtual bool contains(const T& value) const = 0;
  virtual void append(T value) = 0;
  // Removes the first slot holding `value`; false when none does.
  virtual bool removeValue(const T& value) = 0;
};

template <class T>
class TArray : public TSet<T> {
 public:
  virtual T get(uint64_t index) const = 0;
  virtual void set(uint64_t index, T value) = 0;
};

template <class T>
class TVector : public TArray<T> {
 public:
  static Ref<TVector> create(uint64_t count = 0) { return new TVector(count); }

  uint64_t count() const override { return count_; }
  uint64_t capacity() const { return capacity_; }

  T get(uint64_t index) const override { return index < count_ ? slots_[index] : T{}; }
  void set(uint64_t index, T value) override {
    if (index < count_) slots_[index] = std::move(value);
  }

  // Within the capacity only the count changes; beyond it the array grows to the larger of the
  // count asked for and twice the capacity. Slots gained keep whatever they held: the caller
  // sets them.
  void resize(uint64_t count) {
    if (count > capacity_) {
      uint64_t capacity = count > 2 * capacity_ ? count : 2 * capacity_;
      T* slots = new T[capacity];
      for (uint64_t i = 0; i < count_; ++i) slots[i] = std::move(slots_[i]);
      delete[] slots_;
      slots_ = slots;
      capacity_ = capacity;
    }
    count_ = count;
  }

  void append(T value) override {
    resize(count_ + 1);
    slots_[count_ - 1] = std::move(value);
  }

  bool contains(const T& value) const override { return indexOf(value) < count_; }

  bool removeValue(const T& value) override {
    uint64_t index = indexOf(value);
    if (index >= count_) return false;
    removeAt(index);
    return true;
  }

  // Removes slot `index`, moving the later slots down by one.
  void removeAt(uint64_t index) {
    if (index >= count_) return;
    for (uint64_t i = index; i + 1 < count_; ++i) slots_[i] = std::move(slots_[i + 1]);
    slots_[count_ - 1] = T{};  // drop what the vacated slot still holds
    --count_;
  }

  uint64_t indexOf(const T& value) const {
    for (uint64_t i = 0; i < count_; ++i)
      if (slots_[i] == value) return i;
    return count_;
  }

  ~TVector() override { delete[] slots_; }

 private:
  explicit TVector(uint64_t count)
      : slots_(count ? new T[count] : nullptr), count_(count), capacity_(count) {}

  T* slots_;
  uint64_t count_;
  uint64_t capacity_;
};
