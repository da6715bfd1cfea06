// A program's environment: name/value pairs in the order each name first appeared; setting a
// name again replaces its value in place.
//
// Names are indexed by a hash the client cannot predict (keyed afresh in every server run),
// so setting and finding a name cost the same whatever names a request brings: decoding a
// request of n pairs takes time linear in its size, not n squared comparisons.
//
// The pairs are kept as "name=value\0" texts in one buffer, which is what a program's
// environment is made of: a start of n pairs costs a few allocations, not 2n strings, and the
// texts are handed to the program as they are (text()).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/object.h"
#include "platform/string.h"

class Env : public Object {
 public:
  static Ref<Env> create();
  // Makes room for `count` names of `bytes` bytes of names and values together, so that
  // setting them neither lists the names again nor moves the texts.
  void reserve(uint64_t count, uint64_t bytes = 0);
  void set(const char* name, uint64_t nameLength, const char* value, uint64_t valueLength);
  void set(const Ref<String>& name, const Ref<String>& value);
  Ref<String> get(const char* name) const;
  uint64_t count() const { return pairs_.size(); }
  Ref<String> nameAt(uint64_t i) const;
  Ref<String> valueAt(uint64_t i) const;
  // Pair i as "name=value", zero-terminated; null past the end. Valid until the next set().
  const char* text(uint64_t i) const { return i < pairs_.size() ? buffer_.data() + pairs_[i].at : nullptr; }
  uint64_t nameLength(uint64_t i) const { return i < pairs_.size() ? pairs_[i].nameLength : 0; }
  // Whether pair i is named `name`.
  bool named(uint64_t i, const char* name) const;

 private:
  struct Pair {
    uint64_t at;          // where "name=value" starts in buffer_
    uint64_t nameLength;  // the value follows the '=' after the name
    uint64_t valueLength;
  };
  Env() = default;
  // The slot of index_ that lists `name`, or the empty slot where it would go.
  size_t slotOf(const char* name, uint64_t length) const;
  // Makes index_ at least `slots` long (a power of two, at least 16) and lists every name
  // again.
  void grow(size_t slots);

  std::string buffer_;  // the pairs' texts, each ended by a zero byte; a replaced one stays unused
  std::vector<Pair> pairs_;
  // Open addressing, at most half full: 1 + the name's position in pairs_, 0 for an empty slot.
  std::vector<uint32_t> index_;
};
