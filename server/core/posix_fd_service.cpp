#include "core/posix_fd_service.h"

#include <posix/fd_service.h>
#include <posix/posix_service.h>
#include <posix/wire.h>

#include "fd/description_budget.h"
#include "fd/description_holders.h"
#include "fd/fd_log.h"
#include "fd/fd_table.h"
#include "fd/file_description_server_fs_item.h"
#include "fd/file_description_server_socket.h"
#include "fifo/fifo_pairs.h"
#include "common/request_log.h"
#include "common/request_reader.h"
#include "platform/error.h"
#include "platform/local_file.h"

namespace posix {
LogModule fdServiceLog;
}

namespace {

// The host descriptors each kind of description holds while nobody is linked to it.
constexpr uint32_t kItemFiles = 2;    // the opened item and the listening socket
constexpr uint32_t kSocketFiles = 2;  // the socket and the listening socket
constexpr uint32_t kFifoEndFiles = 1;  // the listening socket
constexpr uint32_t kFifoPageFiles = 1;  // the pipe's shared page, counted with its read end

// The result for what insert or dup answered when it found no number.
uint32_t refusal(int32_t fd) { return fd == FDTable::kNoRoom ? PX_RESULT_LIMIT : PX_RESULT_FAILED; }

// Whether `count` more entries fit in the table; checked before a description is made, so
// that a refused request has opened, created or truncated nothing.
bool roomFor(const FDTable& table, uint32_t count) { return table.size() + count <= FDTable::kMaxOpen; }

// Puts `entry` under the lowest free number and answers that number, then the node provider
// record of its description. Result 8 when no node stands behind the number (a reserved
// number has no description at all); 11, with the entry freed, when the table is full.
uint32_t registerDescriptor(const Ref<OutMsg>& reply, FDTable& table, FileDescriptor* entry) {
  Ref<FileDescriptionServer> server = entry->server;
  int32_t fd = table.insert(entry, 0);
  if (fd < 0) {
    delete entry;
    return refusal(fd);
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

// Opens a host item. A short request is not refused: what it leaves out is empty or 0, and an
// empty path is refused by the host (result 7, ENOENT). When the host refuses, result 7 and
// its error code; no number is taken then. With PX_FD_OPEN_HOST_FILE a regular file's host
// open file travels with the reply.
uint32_t openItem(const Ref<InMsg>& request, const Ref<OutMsg>& reply, FDTable& table,
                  DescriptionBudget& budget) {
  Ref<String> path = String::create("", 0);
  uint32_t flags = 0, mode = 0, options = 0;
  readRequest<PX_FD_CMD_OPEN>(request, &path, &flags, &mode, &options);
  Ref<DescriptionCharge> charge = roomFor(table, 1) ? budget.charge(kItemFiles) : nullptr;
  if (!charge) return PX_RESULT_LIMIT;
  // The path is read as the requesting process reads it: /proc/self is its own.
  const uint64_t requester = request->link()->peerIdentity().pid;
  Ref<LocalFileDescriptionFSItem> item = LocalFileDescriptionFSItem::open(path, flags, mode, requester);
  if (!item) {
    uint32_t error = Error::get();
    reply->write(&error, sizeof error);
    return PX_FD_RESULT_OPEN_FAILED;
  }
  if (options & PX_FD_OPEN_HOST_FILE) item->attachTo(reply);  // none for other items
  Ref<FileDescriptionServerFSItem> server = FileDescriptionServerFSItem::create(std::move(item));
  if (!server) return PX_RESULT_FAILED;
  server->setCharge(std::move(charge));
  return registerDescriptor(reply, table, new FileDescriptor{server, false});
}

uint32_t createSocket(const Ref<OutMsg>& reply, FDTable& table, DescriptionBudget& budget) {
  Ref<DescriptionCharge> charge = roomFor(table, 1) ? budget.charge(kSocketFiles) : nullptr;
  if (!charge) return PX_RESULT_LIMIT;
  Ref<FileDescriptionServerSocket> server = FileDescriptionServerSocket::create();
  if (!server) return PX_RESULT_FAILED;
  server->setCharge(std::move(charge));
  return registerDescriptor(reply, table, new FileDescriptor{server, false});
}

uint32_t closeFd(const Ref<InMsg>& request, FDTable& table) {
  int32_t fd = -1;
  if (!readRequest<PX_FD_CMD_CLOSE>(request, &fd) || fd < 0) return PX_RESULT_FAILED;
  return table.remove(fd) ? PX_RESULT_DONE : PX_RESULT_FAILED;
}

// A newFd or replace that is missing or cut short is -1 or 0: only a short oldFd is refused.
uint32_t dupFd(const Ref<InMsg>& request, const Ref<OutMsg>& reply, FDTable& table) {
  int32_t oldFd = -1, newFd = -1;
  uint8_t replace = 0;
  readRequest<PX_FD_CMD_DUP>(request, &oldFd, &newFd, &replace);
  if (oldFd < 0) return PX_FD_RESULT_BAD_FD;
  int32_t fd = table.dup(oldFd, newFd, replace != 0);
  if (fd < 0) return refusal(fd);
  return writeReply<PX_FD_CMD_DUP>(reply, fd) ? PX_RESULT_DONE : PX_RESULT_REPLY_UNWRITTEN;
}

// The table from the number the request names (0 when it names none or cuts it short) on, as
// much as fits in one reply; the result is the number of entries in the whole table.
uint32_t getTable(const Ref<InMsg>& request, const Ref<OutMsg>& reply, const FDTable& table) {
  uint64_t first = 0;
  readRequest<PX_FD_CMD_GET_TABLE>(request, &first);
  return static_cast<uint32_t>(table.serialize(reply, first, PX_WIRE_MAX_FRAME - reply->frameSize()));
}

// A new pipe: the read end under the lowest free number, then the write end under the next;
// each number followed by the node provider record of its description.
uint32_t createPipe(const Ref<OutMsg>& reply, FDTable& table, DescriptionBudget& budget) {
  if (!roomFor(table, 2)) return PX_RESULT_LIMIT;
  Ref<DescriptionCharge> readCharge = budget.charge(kFifoEndFiles + kFifoPageFiles);
  Ref<DescriptionCharge> writeCharge = readCharge ? budget.charge(kFifoEndFiles) : nullptr;
  if (!writeCharge) return PX_RESULT_LIMIT;
  FifoDescriptionPair pair = createFifoPair();
  if (!pair.read || !pair.write) return PX_RESULT_FAILED;
  pair.read->setCharge(std::move(readCharge));
  pair.write->setCharge(std::move(writeCharge));
  auto* readEntry = new FileDescriptor{pair.read, false};
  int32_t readFd = table.insert(readEntry, 0);
  if (readFd < 0) {
    delete readEntry;  // the entry was not taken
    return refusal(readFd);
  }
  auto* writeEntry = new FileDescriptor{pair.write, false};
  int32_t writeFd = table.insert(writeEntry, 0);
  if (writeFd < 0) {
    delete writeEntry;
    table.remove(readFd);
    return refusal(writeFd);
  }
  Ref<Services::Nodes::Provider> readNode = Services::Nodes::Provider::create(pair.read->node(), 0);
  Ref<Services::Nodes::Provider> writeNode = Services::Nodes::Provider::create(pair.write->node(), 0);
  bool written = reply->write(&readFd, sizeof readFd) == sizeof readFd && readNode->serialize(reply) &&
                 reply->write(&writeFd, sizeof writeFd) == sizeof writeFd && writeNode->serialize(reply);
  return written ? PX_RESULT_DONE : PX_RESULT_REPLY_UNWRITTEN;
}

}  // namespace

PosixFDService::PosixFDService() {
  // The services of descriptions admit the processes whose tables hold them.
  DescriptionHolders::setLookup([](const ProcIdentity& identity) -> Ref<FDTable> {
    Ref<PosixProcess> process = PosixProcess::find(identity);
    return process ? process->fdTable() : nullptr;
  });
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
    const auto began = RequestLog::Clock::now();
    Ref<OutMsg> reply = OutMsg::create();
    reply->setCode(PX_RESULT_FAILED);
    Ref<PosixProcess> process = connections_->get(request->link()->tag());
    Ref<FDTable> table = process ? process->fdTable() : nullptr;
    if (table) reply->setCode(handle(request, reply, *table, *process->descriptions()));
    request->reply(reply);
    RequestLog::note(PX_DIAG_FD_SERVICE, request, reply->code(), began);
  }
}

uint32_t PosixFDService::handle(const Ref<InMsg>& request, const Ref<OutMsg>& reply, FDTable& table,
                                DescriptionBudget& budget) {
  switch (request->code()) {
    case PX_FD_CMD_CLOSE: return closeFd(request, table);
    case PX_FD_CMD_DUP: return dupFd(request, reply, table);
    case PX_FD_CMD_GET_TABLE: return getTable(request, reply, table);
    case PX_FD_CMD_OPEN: return openItem(request, reply, table, budget);
    case PX_FD_CMD_CREATE_PIPE: return createPipe(reply, table, budget);
    case PX_FD_CMD_CREATE_SOCKET: return createSocket(reply, table, budget);
    case PX_FD_CMD_RESERVE:
    case PX_FD_CMD_RESERVE_ALT1:
    case PX_FD_CMD_RESERVE_ALT2: return reserve(reply, table);
    default: return PX_RESULT_FAILED;
  }
}
