#include "fd/posix_fd_service.h"

#include <posix/fd_service.h>
#include <posix/posix_service.h>
#include <posix/wire.h>

#include "fd/fd_log.h"
#include "fd/fd_table.h"
#include "fd/file_description_server_fs_item.h"
#include "fd/file_description_server_socket.h"
#include "fifo/fifo_pairs.h"
#include "platform/error.h"
#include "platform/local_file.h"

namespace posix {
LogModule fdServiceLog;
}

namespace {

// Puts `entry` under the lowest free number and answers that number, then the node provider
// record of its description. Result 8 when no node stands behind the number (a reserved
// number has no description at all); 0, with the entry freed, when no number is free.
uint32_t registerDescriptor(const Ref<OutMsg>& reply, FDTable& table, FileDescriptor* entry) {
  Ref<FileDescriptionServer> server = entry->server;
  int32_t fd = table.insert(entry, 0);
  if (fd < 0) {
    delete entry;
    return PX_RESULT_FAILED;
  }
  if (reply->write(&fd, sizeof fd) != sizeof fd) return PX_RESULT_REPLY_UNWRITTEN;
  Ref<Services::Nodes::Provider> provider =
      server && server->node() ? Services::Nodes::Provider::create(server->node(), 0) : nullptr;
  if (!provider) return PX_FD_RESULT_NO_NODE;
  return provider->serialize(reply) ? PX_RESULT_DONE : PX_RESULT_REPLY_UNWRITTEN;
}

uint32_t reserve(const Ref<OutMsg>& reply, FDTable& table) {
  return registerDescriptor(reply, table, new FileDescriptor{});
}

// Opens a host item: string path, u32 open flags, u32 mode (both 0 when missing). When the host
// refuses, result 7 and its error code; no number is taken then.
uint32_t openItem(const Ref<InMsg>& request, const Ref<OutMsg>& reply, FDTable& table) {
  Ref<String> path = String::create(request);
  uint32_t flags = 0;
  uint32_t mode = 0;
  request->read(&flags, sizeof flags);
  request->read(&mode, sizeof mode);
  Ref<LocalFileDescriptionFSItem> item = LocalFileDescriptionFSItem::open(path, flags, mode);
  if (!item) {
    uint32_t error = Error::get();
    reply->write(&error, sizeof error);
    return PX_FD_RESULT_OPEN_FAILED;
  }
  Ref<FileDescriptionServerFSItem> server = FileDescriptionServerFSItem::create(std::move(item));
  if (!server) return PX_RESULT_FAILED;
  return registerDescriptor(reply, table, new FileDescriptor{server, false});
}

uint32_t createSocket(const Ref<OutMsg>& reply, FDTable& table) {
  Ref<FileDescriptionServerSocket> server = FileDescriptionServerSocket::create();
  if (!server) return PX_RESULT_FAILED;
  return registerDescriptor(reply, table, new FileDescriptor{server, false});
}

uint32_t closeFd(const Ref<InMsg>& request, FDTable& table) {
  int32_t fd = -1;
  if (request->read(&fd, sizeof fd) != sizeof fd || fd < 0) return PX_RESULT_FAILED;
  return table.remove(fd) ? PX_RESULT_DONE : PX_RESULT_FAILED;
}

uint32_t dupFd(const Ref<InMsg>& request, const Ref<OutMsg>& reply, FDTable& table) {
  int32_t oldFd = -1;
  if (request->read(&oldFd, sizeof oldFd) != sizeof oldFd || oldFd < 0) return PX_FD_RESULT_BAD_FD;
  int32_t newFd = -1;
  if (request->read(&newFd, sizeof newFd) != sizeof newFd) newFd = -1;
  uint8_t replace = 0;
  if (request->read(&replace, sizeof replace) != sizeof replace) replace = 0;
  int32_t fd = table.dup(oldFd, newFd, replace != 0);
  if (fd < 0) return PX_RESULT_FAILED;
  return reply->write(&fd, sizeof fd) == sizeof fd ? PX_RESULT_DONE : PX_RESULT_REPLY_UNWRITTEN;
}

// A new pipe: the read end under the lowest free number, then the write end under the next;
// each number followed by the node provider record of its description.
uint32_t createPipe(const Ref<OutMsg>& reply, FDTable& table) {
  FifoDescriptionPair pair = createFifoPair();
  if (!pair.read || !pair.write) return PX_RESULT_FAILED;
  auto* readEntry = new FileDescriptor{pair.read, false};
  int32_t readFd = table.insert(readEntry, 0);
  if (readFd < 0) {
    delete readEntry;  // the table is full: the entry was not taken
    return PX_RESULT_FAILED;
  }
  auto* writeEntry = new FileDescriptor{pair.write, false};
  int32_t writeFd = table.insert(writeEntry, 0);
  if (writeFd < 0) {
    delete writeEntry;
    table.remove(readFd);
    return PX_RESULT_FAILED;
  }
  Ref<Services::Nodes::Provider> readNode = Services::Nodes::Provider::create(pair.read->node(), 0);
  Ref<Services::Nodes::Provider> writeNode = Services::Nodes::Provider::create(pair.write->node(), 0);
  bool written = reply->write(&readFd, sizeof readFd) == sizeof readFd && readNode->serialize(reply) &&
                 reply->write(&writeFd, sizeof writeFd) == sizeof writeFd && writeNode->serialize(reply);
  return written ? PX_RESULT_DONE : PX_RESULT_REPLY_UNWRITTEN;
}

}  // namespace

PosixFDService::PosixFDService() {
  lockRef();
  channel_ = Chn::create(Ref<ConMan>(this), String::create(PX_FD_SERVICE_NAME));
  connections_ = TIdTable<Ref<PosixProcess>>::create();
  unlockRef();
}

bool PosixFDService::connect(const Ref<ChnLink>& link) {
  if (!link) return false;
  Ref<PosixProcess> process = PosixProcess::find(link->peerIdentity());
  if (!process) return false;  // unknown to the process service
  link->setTag(connections_->add(process));
  return true;
}

void PosixFDService::disconnect(const Ref<ChnLink>& link) {
  if (link) connections_->remove(link->tag());
}

void PosixFDService::run() {
  while (Ref<InMsg> request = channel_->receive()) {
    Ref<OutMsg> reply = OutMsg::create();
    reply->setCode(PX_RESULT_FAILED);
    Ref<PosixProcess> process = connections_->get(request->link()->tag());
    Ref<FDTable> table = process ? process->fdTable() : nullptr;
    if (table) reply->setCode(handle(request, reply, *table));
    request->reply(reply);
  }
}

uint32_t PosixFDService::handle(const Ref<InMsg>& request, const Ref<OutMsg>& reply, FDTable& table) {
  switch (request->code()) {
    case PX_FD_CMD_CLOSE: return closeFd(request, table);
    case PX_FD_CMD_DUP: return dupFd(request, reply, table);
    case PX_FD_CMD_GET_TABLE:
      // The result is the number of entries present, placeholders included.
      return static_cast<uint32_t>(table.serialize(reply));
    case PX_FD_CMD_OPEN: return openItem(request, reply, table);
    case PX_FD_CMD_CREATE_PIPE: return createPipe(reply, table);
    case PX_FD_CMD_CREATE_SOCKET: return createSocket(reply, table);
    case PX_FD_CMD_RESERVE:
    case PX_FD_CMD_RESERVE_ALT1:
    case PX_FD_CMD_RESERVE_ALT2: return reserve(reply, table);
    default: return PX_RESULT_FAILED;
  }
}
