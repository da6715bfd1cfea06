// A singly linked list of values, appended at the end, walked from the front.
#pragma once

#include <cstdint>
#include <utility>

#include "platform/object.h"

template <class T>
class TList : public Object {
  struct Node {
    T value;
    Node* next;
  };

 public:
  static Ref<TList> create() { return new TList(); }

  uint64_t count() const { return count_; }

  void append(T value) {
    Node* node = new Node{std::move(value), nullptr};
    if (last_) last_->next = node; else first_ = node;
    last_ = node;
    ++count_;
  }

  bool contains(const T& value) const {
    for (Node* n = first_; n; n = n->next)
      if (n->value == value) return true;
    return false;
  }

  bool remove(const T& value) {
    return removeIf([&value](const T& v) { return v == value; }) > 0;
  }

  // Removes every value for which `pred` answers true; answers how many went.
  template <class Pred>
  uint64_t removeIf(Pred pred) {
    uint64_t removed = 0;
    Node* previous = nullptr;
    for (Node* n = first_; n;) {
      Node* next = n->next;
      if (pred(n->value)) {
        if (previous) previous->next = next; else first_ = next;
        if (last_ == n) last_ = previous;
        delete n;
        --count_;
        ++removed;
      } else {
        previous = n;
      }
      n = next;
    }
    return removed;
  }

  // Calls `visit` with every value, front to back.
  template <class Visit>
  void forEach(Visit visit) const {
    for (Node* n = first_; n; n = n->next) visit(n->value);
  }

  ~TList() override {
    while (first_) {
      Node* next = first_->next;
      delete first_;
      first_ = next;
    }
  }

 private:
  TList() = default;
  Node* first_ = nullptr;
  Node* last_ = nullptr;
  uint64_t count_ = 0;
};
