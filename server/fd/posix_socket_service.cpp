#include "fd/posix_socket_service.h"

#include <posix/wire.h>

#include "common/log.h"
#include "fd/file_description_server_socket.h"

PosixSocketService::PosixSocketService(FileDescriptionServerSocket* server) : server_(server) {}

Ref<PosixSocketService> PosixSocketService::create(FileDescriptionServerSocket* server) {
  if (!server) return nullptr;
  return new PosixSocketService(server);
}

bool PosixSocketService::handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret,
                                uint64_t /*value*/, Ref<Object>* /*extra*/) {
  POSIX_ASSERT(in != 0, "PosixSocketService::handle");
  POSIX_ASSERT(out != 0, "PosixSocketService::handle");
  POSIX_ASSERT(ret != 0, "PosixSocketService::handle");
  // No socket operation is served here, whether or not the description still lives.
  if (ret) *ret = PX_RESULT_FAILED;
  return true;
}
