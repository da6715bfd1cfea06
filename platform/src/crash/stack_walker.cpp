// Walking the frame-pointer chain of a faulting thread. Every function is built with frame
// pointers, so each frame record holds the caller's frame pointer at [bp] and the return
// address at [bp + 8]. All reads go through CoreMemory: a broken chain ends the walk instead
// of faulting inside the exception handler.
#include "platform/binary_services.h"

namespace Services::Binary::Client {

namespace {
constexpr uint64_t kRecordSize = 16;  // saved frame pointer, return address
}  // namespace

Ref<StackWalker> StackWalker::create(const Definitions::Contexts::X86_64* context,
                                     const Ref<CoreMemory>& memory) {
  if (!context || !memory) return nullptr;
  Ref<StackWalker> walker = new StackWalker(context->rip, context->rbp, memory);
  if (!walker->validFrame(context->rbp, 0)) return nullptr;
  return walker;
}

// A frame pointer worth following: not null, aligned like a pushed register, above the
// previous frame (stacks grow down, so callers' frames lie higher; this also ends loops) and
// pointing at a readable record.
bool StackWalker::validFrame(uint64_t bp, uint64_t below) const {
  if (bp == 0 || bp % sizeof(uint64_t) != 0) return false;
  if (below != 0 && bp <= below) return false;
  return memory_->readable(bp, kRecordSize);
}

bool StackWalker::next(Frame* frame) {
  if (done_ || yielded_ >= kMaxFrames) return false;
  if (yielded_ == 0) {
    // The faulting instruction; create() checked its frame pointer.
    *frame = {ip_, bp_, true};
    ++yielded_;
    return true;
  }
  uint64_t record[2];
  if (!memory_->read(bp_, record, sizeof record) || record[1] == 0) {
    done_ = true;
    return false;
  }
  uint64_t callerBp = record[0];
  bool valid = validFrame(callerBp, bp_);
  *frame = {record[1], callerBp, valid};
  ++yielded_;
  // The caller's return address is known, but nothing beyond it.
  if (valid)
    bp_ = callerBp;
  else
    done_ = true;
  return true;
}

}  // namespace Services::Binary::Client
