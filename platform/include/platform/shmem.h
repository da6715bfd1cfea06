// Shared memory objects.
#pragma once

#include <cstdint>

#include "platform/object.h"

// Shared memory: RT/shm/<id> (16 lowercase hex digits); its id is the pair (id, size).
struct ShMemID {
  uint64_t id = 0;
  uint64_t size = 0;
};

class SharedMemory : public Object {
 public:
  ShMemID id() const { return id_; }
  // Lets `pid` open the object; the hosted platform has nothing to grant and answers true.
  bool grant(uint64_t pid);
  ~SharedMemory() override;

 private:
  friend class ShMem;
  SharedMemory(int fd, ShMemID id) : fd_(fd), id_(id) {}
  int fd_;
  ShMemID id_;
};

class ShMem {
 public:
  // Opens an existing object without waiting (EWOULDBLOCK when someone holds a lease on it);
  // null with Error set when it is missing (ENOENT), is a link (ELOOP) or no regular file
  // (EINVAL).
  static Ref<SharedMemory> open(ShMemID id);
  // Makes a new object of `size` bytes (used by tests; clients make their own).
  static Ref<SharedMemory> create(uint64_t size);
};
