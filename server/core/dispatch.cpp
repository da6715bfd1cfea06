// The dispatcher of "posix.service": identifies the caller by the link's tag, decodes the
// command and hands it to the process objects.
#include <posix/posix_service.h>

#include "core/posix_service.h"
#include "common/request_reader.h"
#include "common/service_log.h"
#include "fd/description_budget.h"
#include "fifo/fifo_pairs.h"
#include "fifo/unclaimed_pipe_ends.h"
#include "process/process_group.h"
#include "platform/shmem.h"

using posix::LogNum;
using posix::serviceLog;

namespace {

// A pipe handed out as two node providers, the read end's then the write end's. Only the caller
// may connect to them. Each end closes with its last connection; until the caller connects it
// stays open, counted against the caller's bound of waiting ends and closed when the caller
// ends. Each end counts among the descriptions the caller holds until it closes.
uint32_t createPipe(const Ref<PosixProcess>& caller, const Ref<OutMsg>& reply) {
  const Ref<UnclaimedPipeEnds>& waiting = caller->unclaimedPipeEnds();
  if (!waiting->admit(2)) return PX_RESULT_LIMIT;
  Ref<DescriptionCharge> readCharge = caller->descriptions()->charge(2);  // socket and page
  Ref<DescriptionCharge> writeCharge = readCharge ? caller->descriptions()->charge(1) : nullptr;
  if (!writeCharge) return PX_RESULT_LIMIT;
  PipeProviderPair pair = createPipePair(caller->identity());
  if (!pair.read || !pair.write) {
    // Half a pipe is of no use to anyone: withdraw the end that was made.
    if (pair.readCloser) pair.readCloser->closeUnclaimed();
    if (pair.writeCloser) pair.writeCloser->closeUnclaimed();
    return PX_RESULT_FAILED;
  }
  pair.readCloser->setCharge(std::move(readCharge));
  pair.writeCloser->setCharge(std::move(writeCharge));
  waiting->add(pair.readCloser);
  waiting->add(pair.writeCloser);
  if (!pair.read->serialize(reply) || !pair.write->serialize(reply)) return PX_RESULT_REPLY_UNWRITTEN;
  return PX_RESULT_DONE;
}

}  // namespace

bool PosixService::dispatch(Ref<InMsg> request, Ref<OutMsg> reply, uint32_t* resultCode,
                            uint64_t /*unused*/, Ref<Object>* slot) {
  Ref<PosixProcess> caller = processes_->get(request->link()->tag());
  if (!caller) {
    POSIX_LOG(serviceLog.handle, 3, "Invalid chnLink tag");
    *resultCode = PX_RESULT_FAILED;
    return true;
  }
  switch (request->code()) {
    case PX_CMD_KILL: *resultCode = kill(caller, request); break;
    case PX_CMD_KILL_GROUP:
      if (!killGroup(caller, request, resultCode)) return false;  // a broadcast answers later
      break;
    case PX_CMD_WAIT_SIGNAL:
      if (caller->waitSignal(request)) return false;
      *resultCode = PX_RESULT_FAILED;
      break;
    case PX_CMD_GET_GROUP_ID: *resultCode = getGroupId(request, reply); break;
    case PX_CMD_GET_PARENT_ID: {
      Ref<PosixProcess> parent = caller->parent();
      uint64_t parentPid = parent ? parent->pid() : 0;
      bool written = writeReply<PX_CMD_GET_PARENT_ID>(reply, parentPid);
      *resultCode = written ? PX_RESULT_DONE : PX_RESULT_REPLY_UNWRITTEN;
      break;
    }
    case PX_CMD_SPAWN:
    case PX_CMD_SPAWN_SHARED:
      if (!spawn(caller, request, reply, resultCode)) return false;  // the agent answers
      break;
    case PX_CMD_GET_SHARED_MEMORY: *resultCode = getSharedMemory(caller, reply); break;
    case PX_CMD_WAIT: {
      uint32_t kind = 0;
      uint64_t value = 0, options = 0;
      if (!readRequest<PX_CMD_WAIT>(request, &kind, &value, &options)) {
        *resultCode = PX_RESULT_SHORT_REQUEST;
        break;
      }
      if (caller->wait(request, kind, value, options)) return false;  // wait answers by itself
      *resultCode = PX_RESULT_FAILED;
      break;
    }
    case PX_CMD_ABORT_WAITS:
      // The request itself keeps whatever result code the previous request left.
      caller->failWaiters(PX_RESULT_ABORTED);
      break;
    case PX_CMD_CREATE_PIPE: *resultCode = createPipe(caller, reply); break;
    default: *resultCode = PX_RESULT_FAILED; break;
  }
  if (slot) slot->reset();
  return true;
}

uint32_t PosixService::getGroupId(const Ref<InMsg>& request, const Ref<OutMsg>& reply) {
  uint64_t pid = 0;
  if (!readRequest<PX_CMD_GET_GROUP_ID>(request, &pid)) return PX_RESULT_SHORT_REQUEST;
  Ref<PosixProcess> process = PosixProcess::findByPid(pid);
  if (!process) return PX_RESULT_NO_PROCESS;
  uint64_t groupId = pid;
  if (Ref<PosixProcessGroup> group = process->group())
    groupId = group->id();
  else
    POSIX_LOG(serviceLog.handle, 3, "No Group set for " << LogNum{pid});
  return writeReply<PX_CMD_GET_GROUP_ID>(reply, groupId) ? PX_RESULT_DONE : PX_RESULT_REPLY_UNWRITTEN;
}

uint32_t PosixService::getSharedMemory(const Ref<PosixProcess>& caller, const Ref<OutMsg>& reply) {
  ShMemID id = caller->grantSharedMemory();
  if (id.id == 0) return PX_RESULT_FAILED;
  if (!writeReply<PX_CMD_GET_SHARED_MEMORY>(reply, id.id, id.size)) return PX_RESULT_REPLY_UNWRITTEN;
  return PX_RESULT_DONE;
}
