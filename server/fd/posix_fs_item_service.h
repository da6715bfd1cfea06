// The item service of an opened file-system item: command 4 describes the item (its path as a
// platform string, its type code as i32, its open flags as u32); command 5 hands a regular
// file's host open file to the client with the reply, so that it moves the bytes itself, when
// the client's table still holds the description (else PX_RESULT_NOT_HOLDER); command 6
// answers, as i32, why the last read or write of the item that moved nothing did so
// (ItemStream::lastEmpty). Any other command answers 0.
//
// It holds its description only weakly, so it never keeps the description alive; once the last
// descriptor has gone it answers 0 to everything, even on links that are still open.
#pragma once

#include <posix/fs_item.h>

#include "platform/chn.h"
#include "platform/service.h"

class FileDescriptionServerFSItem;

class PosixFSItemService : public Object, public Interfaces::Service, public ConMan {
 public:
  enum Command : int32_t {
    kCommandDescribe = PX_ITEM_CMD_DESCRIBE,
    kCommandHostFile = PX_ITEM_CMD_HOST_FILE,
    kCommandLastEmpty = PX_ITEM_CMD_LAST_EMPTY,
  };

  // Null when `server` is null.
  static Ref<PosixFSItemService> create(FileDescriptionServerFSItem* server);

  bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret, uint64_t value,
              Ref<Object>* extra) override;
  bool isBound() override { return false; }
  uint32_t unbind(Ref<Object> /*binding*/) override { return 0; }
  Ref<String> name() override { return String::create("PosixFSItem"); }

  bool connect(const Ref<ChnLink>& /*link*/) override { return true; }
  void disconnect(const Ref<ChnLink>& /*link*/) override {}

 private:
  explicit PosixFSItemService(FileDescriptionServerFSItem* server);

  const WeakRef<FileDescriptionServerFSItem> server_;
};
