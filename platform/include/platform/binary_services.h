// The binary service client: the modules loaded in this process, a view of the process's own
// memory whose reads never fault, and a stack walker over frame pointers. Crash dumps use all
// three from inside the exception handler, so none of them relies on the faulting thread's
// state beyond the context it is handed.
#pragma once

#include <cstdint>

#include "platform/exception.h"
#include "platform/object.h"
#include "platform/proc.h"
#include "platform/string.h"

// One loaded module: the first address of its loadable segments, the address just past the
// last one, and its path (null when the loader knows no name for it).
struct ModuleInfo : public Object {
  static Ref<ModuleInfo> create(uint64_t first, uint64_t end, const Ref<String>& name) {
    return new ModuleInfo(first, end, name);
  }
  bool contains(uint64_t address) const { return address >= first && address < end; }

  const uint64_t first;
  const uint64_t end;
  const Ref<String> name;

 private:
  ModuleInfo(uint64_t firstAddress, uint64_t endAddress, const Ref<String>& moduleName)
      : first(firstAddress), end(endAddress), name(moduleName) {}
};

namespace Services::Binary::Client {

// This process's memory, read without the risk of a fault: every read first asks the kernel
// to copy the bytes, and an address that is not mapped readable just answers false.
class CoreMemory : public Object {
 public:
  // Null when the host offers no way to read memory safely. `pipeOnly` skips straight to the
  // fallback that sandboxed hosts get (tests use it to cover that path).
  static Ref<CoreMemory> create(bool pipeOnly = false);

  // Copies `size` bytes at `address` into `buffer`; false when any of them cannot be read
  // (the buffer's content is then unspecified).
  bool read(uint64_t address, void* buffer, uint64_t size);
  bool readable(uint64_t address, uint64_t size);
  bool read64(uint64_t address, uint64_t* value) { return read(address, value, sizeof *value); }

  ~CoreMemory() override;

 private:
  explicit CoreMemory(bool viaPipe);
  bool readChunk(uint64_t address, void* buffer, uint64_t size);

  // Kernels or sandboxes without process_vm_readv fall back to writing the bytes into a pipe,
  // which fails with EFAULT instead of faulting. Used by one dump at a time.
  bool viaPipe_;
  int pipe_[2] = {-1, -1};
};

// Walks the frame-pointer chain that starts at a context's rbp. The first frame is the
// faulting instruction itself; each further frame is the return address saved next to a
// frame pointer. The walk ends at a null return address, at a frame pointer that is null,
// unreadable, misaligned or not above the previous one (that frame is still yielded, marked
// invalid), or after kMaxFrames frames.
class StackWalker : public Object {
 public:
  static constexpr uint32_t kMaxFrames = 256;

  struct Frame {
    uint64_t ip;   // instruction address
    uint64_t bp;   // the frame pointer of that frame
    bool bpValid;  // whether bp points at a readable frame record
  };

  // Null when no walk is possible: no context or memory view, or a context whose rbp does not
  // point at a readable frame record.
  static Ref<StackWalker> create(const Definitions::Contexts::X86_64* context,
                                 const Ref<CoreMemory>& memory);

  // The next frame; false when the walk has ended.
  bool next(Frame* frame);

 private:
  StackWalker(uint64_t ip, uint64_t bp, Ref<CoreMemory> memory)
      : ip_(ip), bp_(bp), memory_(std::move(memory)) {}
  bool validFrame(uint64_t bp, uint64_t below) const;

  uint64_t ip_;
  uint64_t bp_;  // the frame pointer of the frame yielded last (or of the first frame)
  Ref<CoreMemory> memory_;
  uint32_t yielded_ = 0;
  bool done_ = false;
};

}  // namespace Services::Binary::Client
