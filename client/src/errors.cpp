// Result codes of "posix.service" as errno values (the table is in posix_client.h).
#include <errno.h>

#include "internal.h"

namespace pxc {

int errnoForResult(uint32_t code, int zeroErrno) {
  switch (code) {
    case PX_RESULT_FAILED:
      return zeroErrno;
    case PX_RESULT_BAD_SIGNAL:
      return EINVAL;
    case PX_RESULT_NO_PROCESS:
      return ESRCH;
    case PX_RESULT_NOT_PERMITTED:
      return EPERM;
    case PX_RESULT_NO_CHILD:
      return ECHILD;
    case PX_RESULT_ABORTED:
      return EINTR;
    case PX_RESULT_LIMIT:
      return EAGAIN;
    default:
      // 9 (short request), 10 (reply unwritten) and codes this library does not know.
      return EPROTO;
  }
}

}  // namespace pxc
