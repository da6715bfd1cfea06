// The resizable adapter of an opened item: a client asks for the item's size (command 2) or
// sets it (command 3). Values are 64-bit, exactly 8 bytes each; the resizable object's own
// answer reaches the client unchanged, all ones included. Commands 0 and 1 belong to the
// seekable adapter and are unknown here.
#pragma once

#include <posix/fs_item.h>

#include "platform/chn.h"
#include "platform/local_file.h"
#include "platform/service.h"

class PosixResizableService : public virtual Interfaces::Service, public virtual ConMan {
 public:
  enum Command : uint32_t {
    kCommandSize = PX_RESIZE_CMD_SIZE,      // - -> u64 size
    kCommandResize = PX_RESIZE_CMD_RESIZE,  // u64 size -> u64 what the resize answered
  };

  // Null (and an assertion logged) when `resize` is null.
  static Ref<PosixResizableService> create(Ref<Interfaces::Resizable> resize);
};
