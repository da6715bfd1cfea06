// Waiting for children. A blocking wait holds its connection until the server answers: when a
// matching child ends, when none is left (ECHILD), or when px_abort_waits() ends it (EINTR).
#include <errno.h>
#include <unistd.h>

#include <posix/wire_tables.h>

#include "internal.h"
#include "posix_client.h"

namespace pxc {

namespace {

// Whether a child this process started, matching the wait, is still running. Every child
// joins its spawner's group, so a group wait matches our children only for our own group.
bool matchingChildRunning(uint32_t kind, uint64_t value) {
  if (kind == PX_WAIT_BY_PID) return childKnown(value);
  if (kind == PX_WAIT_ANY_CHILD || value == 0) return anyChildKnown();
  if (!anyChildKnown()) return false;
  int64_t own = px_getpgid(0);
  return own > 0 && static_cast<uint64_t>(own) == value;
}

}  // namespace

}  // namespace pxc

extern "C" {

int64_t px_waitpid(int64_t pid, int* status, int options) {
  if ((options & ~(PX_WNOHANG | PX_WNOWAIT)) != 0) return pxc::fail(EINVAL);
  uint32_t kind;
  uint64_t value;
  if (pid > 0) {
    kind = PX_WAIT_BY_PID;
    value = static_cast<uint64_t>(pid);
  } else if (pid == -1) {
    kind = PX_WAIT_ANY_CHILD;
    value = 0;
  } else {
    kind = PX_WAIT_BY_GROUP;
    value = pid == 0 ? 0 : static_cast<uint64_t>(-pid);  // 0: the caller's own group
  }
  uint64_t wireOptions = 0;
  if ((options & PX_WNOHANG) != 0) wireOptions |= PX_WAIT_OPT_NOHANG;
  if ((options & PX_WNOWAIT) != 0) wireOptions |= PX_WAIT_OPT_NOWAIT;

  pxc::FrameWriter req(PX_CMD_WAIT);
  px::putRequest<PX_CMD_WAIT>(req, kind, value, wireOptions);
  pxc::Reply reply;
  int err = pxc::transact(req, &reply, (options & PX_WNOHANG) == 0);
  if (err != 0) return pxc::fail(err);

  if (reply.code == PX_RESULT_DONE) {
    px_status_record record;
    if (!reply.record(&record) || record.pid == 0) return pxc::fail(EPROTO);
    if ((options & PX_WNOWAIT) == 0) pxc::childCollected(record.pid);
    if (status != nullptr) *status = static_cast<int>(record.exit_code);
    return static_cast<int64_t>(record.pid);
  }
  if (reply.code == PX_RESULT_NO_CHILD) {
    if ((options & PX_WNOHANG) != 0 && pxc::matchingChildRunning(kind, value)) return 0;
    // A blocking wait for one pid answered "none": it is not (or no longer) our child.
    if ((options & PX_WNOHANG) == 0 && kind == PX_WAIT_BY_PID) pxc::childForget(value);
    return pxc::fail(ECHILD);
  }
  return pxc::fail(pxc::errnoForResult(reply.code, EPROTO));
}

}  // extern "C"
