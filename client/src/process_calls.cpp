// Signals and process queries: kill, group kill, group and parent ids, abort of waits.
#include <errno.h>
#include <unistd.h>

#include <posix/wire_tables.h>

#include "internal.h"
#include "posix_client.h"

namespace pxc {

namespace {

// A kill or group kill: the target, the signal and the record a signal waiter receives with
// it, marked as sent by this process.
template <px_process_command Command>
int sendSignal(uint64_t target, int sig) {
  const uint32_t signal = static_cast<uint32_t>(sig);
  px_status_record sender = {signal, 0xFFFFFFFFu, 0, 0, static_cast<uint64_t>(getpid()), 0};
  FrameWriter req(Command);
  px::putRequest<Command>(req, target, signal, sender);
  Reply reply;
  int err = transact(req, &reply);
  if (err != 0) return fail(err);
  if (reply.code != PX_RESULT_DONE) return fail(errnoForResult(reply.code, ESRCH));
  return 0;
}

// The server checks the range of a signal to one process (result 2).
int killOne(int64_t pid, int sig) { return sendSignal<PX_CMD_KILL>(static_cast<uint64_t>(pid), sig); }

int killGroup(uint64_t selector, int sig) {
  // The server does not check the range of a group signal: members would be skipped silently.
  if (sig < 0 || sig >= PX_NSIG) return fail(EINVAL);
  return sendSignal<PX_CMD_KILL_GROUP>(selector, sig);
}

// A request whose answer is one u64 value: the value, or -1 with errno set.
int64_t askU64(FrameWriter& req) {
  Reply reply;
  int err = transact(req, &reply);
  if (err != 0) return fail(err);
  if (reply.code != PX_RESULT_DONE) return fail(errnoForResult(reply.code, EPROTO));
  uint64_t value = 0;
  if (!reply.dataU64(0, &value)) return fail(EPROTO);
  return static_cast<int64_t>(value);
}
}  // namespace
}  // namespace pxc

extern "C" {

int px_kill(int64_t pid, int sig) {
  if (pid > 0) return pxc::killOne(pid, sig);
  if (pid == 0) return pxc::killGroup(PX_KILL_SELECTOR_OWN_GROUP, sig);
  if (pid == -1) return pxc::killGroup(PX_KILL_SELECTOR_ALL, sig);
  return px_killpg(-pid, sig);
}

int px_killpg(int64_t pgid, int sig) {
  if (pgid < 0) return pxc::fail(EINVAL);
  if (pgid == 0) return pxc::killGroup(PX_KILL_SELECTOR_OWN_GROUP, sig);
  // Selector 1 means "every process" on the wire, so group 1 has no name of its own. Group
  // ids are pids of processes that connected; pid 1 never is one.
  if (pgid == PX_KILL_SELECTOR_ALL) return pxc::fail(ESRCH);
  return pxc::killGroup(static_cast<uint64_t>(pgid), sig);
}

int px_kill_all(int sig) { return px_kill(-1, sig); }

int64_t px_getpgid(int64_t pid) {
  if (pid < 0) return pxc::fail(ESRCH);
  pxc::FrameWriter req(PX_CMD_GET_GROUP_ID);
  uint64_t target = pid == 0 ? static_cast<uint64_t>(getpid()) : static_cast<uint64_t>(pid);
  px::putRequest<PX_CMD_GET_GROUP_ID>(req, target);
  return pxc::askU64(req);
}

int64_t px_getppid(void) {
  pxc::FrameWriter req(PX_CMD_GET_PARENT_ID);
  return pxc::askU64(req);
}

int px_abort_waits(void) {
  pxc::FrameWriter req(PX_CMD_ABORT_WAITS);
  pxc::Reply reply;
  // The reply's own code is whatever the server's previous request left: it means nothing.
  int err = pxc::transact(req, &reply);
  if (err != 0) return pxc::fail(err);
  return 0;
}

}  // extern "C"
