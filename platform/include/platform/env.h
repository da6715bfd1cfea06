// A program's environment: name/value pairs in the order each name first appeared; setting a
// name again replaces its value in place.
//
// Names are indexed by a hash the client cannot predict (keyed afresh in every server run),
// so setting and finding a name cost the same whatever names a request brings: decoding a
// request of n pairs takes time linear in its size, not n squared comparisons.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/object.h"
#include "platform/string.h"

class Env : public Object {
 public:
  static Ref<Env> create();
  // Makes room for `count` names, so that setting them does not list the names again.
  void reserve(uint64_t count);
  void set(const Ref<String>& name, const Ref<String>& value);
  Ref<String> get(const char* name) const;
  uint64_t count() const { return names_.size(); }
  Ref<String> nameAt(uint64_t i) const { return i < names_.size() ? names_[i] : nullptr; }
  Ref<String> valueAt(uint64_t i) const { return i < values_.size() ? values_[i] : nullptr; }

 private:
  Env() = default;
  // The slot of index_ that lists `name`, or the empty slot where it would go.
  size_t slotOf(const char* name, uint64_t length) const;
  // Makes index_ at least `slots` long (a power of two, at least 16) and lists every name
  // again.
  void grow(size_t slots);

  std::vector<Ref<String>> names_;
  std::vector<Ref<String>> values_;
  // Open addressing, at most half full: 1 + the name's position in names_, 0 for an empty slot.
  std::vector<uint32_t> index_;
};
