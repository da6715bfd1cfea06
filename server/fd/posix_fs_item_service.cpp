#include "fd/posix_fs_item_service.h"

#include <posix/wire.h>

#include "common/log.h"
#include "common/request_reader.h"
#include "fd/description_holders.h"
#include "fd/file_description_server_fs_item.h"
#include "platform/sync.h"

PosixFSItemService::PosixFSItemService(FileDescriptionServerFSItem* server) : server_(server) {}

Ref<PosixFSItemService> PosixFSItemService::create(FileDescriptionServerFSItem* server) {
  if (!server) return nullptr;
  return new PosixFSItemService(server);
}

bool PosixFSItemService::handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret,
                                uint64_t /*value*/, Ref<Object>* /*extra*/) {
  POSIX_ASSERT(in != 0, "PosixFSItemService::handle");
  POSIX_ASSERT(out != 0, "PosixFSItemService::handle");
  POSIX_ASSERT(ret != 0, "PosixFSItemService::handle");
  if (!in || !out || !ret) return true;
  *ret = PX_RESULT_FAILED;
  Ref<FileDescriptionServerFSItem> server = GcProxy::lockWeakRef(server_);
  if (!server) return true;
  const Ref<LocalFileDescriptionFSItem>& item = server->item();
  if (static_cast<int32_t>(in->code()) == kCommandHostFile) {
    // The host open file outlives any close: only a process that holds the description now
    // gets one.
    const ChnLink* link = ChnLink::served();
    if (!link || !DescriptionHolders::holds(link->peerIdentity(), server.get()))
      *ret = PX_RESULT_NOT_HOLDER;
    else if (item->attachTo(out))
      *ret = PX_RESULT_DONE;
    return true;
  }
  if (static_cast<int32_t>(in->code()) == kCommandLastEmpty) {
    int32_t why = server->stream() ? server->stream()->lastEmpty() : 0;
    if (writeReply<PX_ITEM_CMD_LAST_EMPTY>(out, why)) *ret = PX_RESULT_DONE;
    return true;
  }
  if (static_cast<int32_t>(in->code()) != kCommandDescribe) return true;

  Ref<Interfaces::FileSystemObject> object = item->fileSystemObject();
  Ref<String> path = object->path();
  int32_t type = object->objectType();
  uint32_t flags = item->openFlags();
  // A path that came in one request always fits one reply with the two values after it.
  writeReply<PX_ITEM_CMD_DESCRIBE>(out, path, type, flags);
  *ret = PX_RESULT_DONE;
  return true;
}
