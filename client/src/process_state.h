// What the library keeps of the process itself: the children it started and has not collected,
// the signal state, and the errno values of result codes.
#pragma once

#include <cstdint>

namespace pxc {

// Children this process started and has not collected yet (for non-blocking waits).
void childStarted(uint64_t pid);
void childCollected(uint64_t pid);
void childForget(uint64_t pid);  // the server says it is no child of ours
bool childKnown(uint64_t pid);
bool anyChildKnown();
void resetChildren();

// Signal state: the dedicated connection and the local queue.
void resetSignals();

// errno for a result code of the server (see posix_client.h); `zeroErrno` for result 0.
int errnoForResult(uint32_t code, int zeroErrno);

// Sets errno and answers -1 (for the C calls).
int fail(int err);

}  // namespace pxc
