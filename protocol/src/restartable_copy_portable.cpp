// Where the host offers no restartable sequences to this build, no copy is restartable: a
// holder's lock is then never taken over, only freed once its process has gone.
#include "restartable_copy.h"

namespace posix {

bool restartableCopies() { return false; }

CopyOutcome copyRestartable(const CopyPlan&) { return CopyOutcome::kLost; }

}  // namespace posix
