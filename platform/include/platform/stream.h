// Data and streams: the interfaces through which the platform moves bytes between an object and
// memory. A stream call names its memory with a descriptor passed by value; the hosted platform
// knows one kind of memory only, memory addressed directly in the calling process.
#pragma once

#include <cstdint>

#include "platform/object.h"

namespace Interfaces {

// A piece of memory handed to a data object. `size` is what the memory holds; a call moves at
// most the smaller of its own size argument and this.
struct MemDesc {
  uint32_t kind = 0;     // kDirect, or 0 for "no memory"
  uint64_t address = 0;  // with kDirect: a pointer in this process
  uint64_t size = 0;

  // Memory addressed directly in this process: `address` is a pointer.
  static constexpr uint32_t kDirect = 2;

  static MemDesc direct(const void* p, uint64_t size) {
    return MemDesc{kDirect, reinterpret_cast<uint64_t>(p), size};
  }
  void* pointer() const { return reinterpret_cast<void*>(address); }
};

// Something that holds bytes. A data object may lend its memory to a client directly; the
// hosted streams never do, and answer an empty descriptor.
class Data : public virtual RefCount {
 public:
  // What kind of data object this is; 1 for a plain byte stream.
  virtual uint32_t dataKind() = 0;
  // Lends the data's memory for `client`; an empty descriptor (all fields zero) when the data
  // cannot be reached that way.
  virtual MemDesc map(Ref<Object> client) = 0;
  // Gives back what map lent to `client`.
  virtual void unmap(Ref<Object> client) = 0;
};

// A byte stream. Both calls answer the number of bytes moved; 0 says nothing about why (the
// object that owns the stream tells, when it can). Time-outs are milliseconds; 0xFFFFFFFF
// waits for ever.
class Stream : public virtual Data {
 public:
  virtual uint64_t read(MemDesc buffer, uint64_t size, uint32_t timeoutMs) = 0;
  virtual uint64_t write(MemDesc buffer, uint64_t size, uint32_t timeoutMs) = 0;
  // Bytes a read would return without waiting, where the stream knows; 0 otherwise.
  virtual uint64_t readable() = 0;
  // A control call particular to the kind of stream; 0 when the stream has none.
  virtual uint64_t control(uint32_t code, uint64_t argument) = 0;
};

// What a stream call would have waited for, handed to its caller instead (WaitingStream).
struct StreamWait {
  bool armed = false;        // the call has to wait; the fields below say for what
  uint32_t* word = nullptr;  // a shared futex word, or null: the wait is for the time alone
  uint32_t seen = 0;         // the value the word held: the wait is over once it moves
  uint32_t lookAgainMs = 0xFFFFFFFFu;  // the call is to be made again after this long at most
  uint64_t own[3] = {};      // the stream's own notes, kept by the caller between the calls
};

// A stream whose calls can hand their waits to the caller, so that no thread has to sleep in
// the stream while a request waits (the caller watches the word and calls again).
class WaitingStream : public virtual RefCount {
 public:
  // Moves what can be moved now, up to `size` bytes: a read what is there (at least a byte, or
  // nothing at the end of the data), a write what fits. Answers the count moved, with `wait`
  // armed when the call has to wait for more (a read that found nothing, a write with bytes
  // left). An armed wait counts the caller as a waiter of the word, so whoever moves it wakes
  // the waiters: once the wait is over, or the caller gives up, it calls endWait() before
  // anything else, with the same `wait`, which it then passes to its next call. Not armed, the
  // answer is final: 0 says nothing about why (the stream's owner tells, as for Stream).
  virtual uint64_t readOrWait(MemDesc buffer, uint64_t size, StreamWait* wait) = 0;
  virtual uint64_t writeOrWait(MemDesc buffer, uint64_t size, StreamWait* wait) = 0;
  virtual void endWait(StreamWait* wait) = 0;
};

}  // namespace Interfaces
