// The seekable adapter of an opened item: a client asks for the item's position (command 0)
// or moves it (command 1, an absolute position). Values are 64-bit, exactly 8 bytes each; the
// seekable object's own answer reaches the client unchanged, all ones included. Commands 2 and
// 3 belong to the resizable adapter and are unknown here.
#pragma once

#include <posix/fs_item.h>

#include "platform/chn.h"
#include "platform/local_file.h"
#include "platform/service.h"

class PosixSeekableService : public virtual Interfaces::Service, public virtual ConMan {
 public:
  enum Command : uint32_t {
    kCommandPosition = PX_SEEK_CMD_POSITION,  // - -> u64 position
    kCommandSeek = PX_SEEK_CMD_SEEK,          // u64 position -> u64 what the seek answered
  };

  // Null (and an assertion logged) when `seek` is null.
  static Ref<PosixSeekableService> create(Ref<Interfaces::Seekable> seek);
};
