// The platform's own hands on host descriptors that outlive the call that opens them: each
// such descriptor is counted when it is made and uncounted when it is closed, so that
// HostFiles::inUse() stays true. A descriptor opened through opened() is closed through
// close(), never ::close(); one that is opened and closed within one call may bypass both.
#pragma once

namespace HostFd {

// Counts `fd` when it is a descriptor (not negative) and answers it unchanged, so that it
// wraps the call that makes it: `int fd = HostFd::opened(::socket(...));`.
int opened(int fd);
// Closes a counted descriptor and uncounts it; nothing for a negative one. Keeps errno.
void close(int fd);

}  // namespace HostFd
