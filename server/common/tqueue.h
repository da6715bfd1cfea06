// A first-in first-out queue of values that any thread may fill and empty. `mon_` guards the
// node chain; a node is two words, the link to the next newer node and the queued value.
#pragma once

#include <utility>

#include "common/log.h"
#include "platform/sync.h"

// The function names the queue's log-only assertions report. A queue of a particular value type
// may specialise it to name itself in the log.
template <class T>
struct TQueueNames {
  static constexpr const char* enqueue = "TQueue::enqueue";
  static constexpr const char* dequeue = "TQueue::dequeue";
};

template <class T>
class TQueue : public Object {
  struct Node {
    Node* next;
    T value;
  };

 public:
  static Ref<TQueue> create() { return new TQueue(); }

  // Appends `value` behind the newest value.
  void enqueue(T value) {
    Node* node = new Node{nullptr, std::move(value)};
    MonLock lock(mon_);
    if (!last_) {
      // An empty queue: a set `first_` would be a broken chain; it is overwritten.
      POSIX_ASSERT(first_ == nullptr, TQueueNames<T>::enqueue);
      first_ = node;
    } else {
      last_->next = node;
    }
    last_ = node;
  }

  // Removes and answers the oldest value; the empty value when the queue is empty. Never waits.
  T dequeue() {
    MonLock lock(mon_);
    if (!first_) return T{};
    Node* entry = first_;
    T value = std::move(entry->value);
    first_ = entry->next;
    if (!first_) {
      POSIX_ASSERT(last_ == entry, TQueueNames<T>::dequeue);
      last_ = nullptr;
    }
    delete entry;
    return value;
  }

  bool empty() const {
    MonLock lock(mon_);
    return first_ == nullptr;
  }

  ~TQueue() override {
    while (first_) {
      Node* next = first_->next;
      delete first_;
      first_ = next;
    }
  }

 private:
  TQueue() : mon_(Mon::create()) {}

  Ref<Mon> mon_;
  Node* first_ = nullptr;  // guarded by mon_: the oldest node, null when empty
  Node* last_ = nullptr;   // guarded by mon_: the newest node, null when empty
};
