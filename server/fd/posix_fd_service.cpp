#include "fd/posix_fd_service.h"

#include <posix/fd_service.h>
#include <posix/posix_service.h>
#include <posix/wire.h>

#include "fd/fd_log.h"
#include "fd/fd_table.h"
#include "fifo/fifo_pairs.h"

namespace posix {
LogModule fdServiceLog;
}

namespace {

// One reserved number: a descriptor without a description, so it has no node (result 8).
uint32_t reserve(const Ref<OutMsg>& reply, FDTable& table) {
  int32_t fd = table.insert(new FileDescriptor{}, 0);
  if (fd < 0) return PX_RESULT_FAILED;
  reply->write(&fd, sizeof fd);
  return PX_FD_RESULT_NO_NODE;
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
  int32_t readFd = table.insert(new FileDescriptor{pair.read, false}, 0);
  if (readFd < 0) return PX_RESULT_FAILED;  // the table is full: the entry was not taken
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
  Ref<PosixProcess> process = PosixProcess::find(link->peerPid());
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
    case PX_FD_CMD_CREATE_PIPE: return createPipe(reply, table);
    case PX_FD_CMD_RESERVE:
    case PX_FD_CMD_RESERVE_ALT1:
    case PX_FD_CMD_RESERVE_ALT2: return reserve(reply, table);
    default: return PX_RESULT_FAILED;
  }
}
