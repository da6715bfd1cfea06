// The host descriptors this process holds, and how many it may hold. Every description and
// every link costs the server host descriptors, so the server refuses new ones before the host
// refuses it; these counts tell it how close it is.
//
// The count is kept, not measured: the platform counts each descriptor it keeps beyond the call
// that opens it (listening and linked sockets, their wake-up events, opened items, sockets,
// shared memory) when it opens it and again when it closes it, on top of what the process held
// when it started. So asking costs one atomic read and needs no free descriptor.
#pragma once

#include <cstdint>

namespace HostFiles {

// The most descriptors the process may hold now (its current RLIMIT_NOFILE), never below 1.
uint64_t limit();
// The descriptors the process holds now.
uint64_t inUse();
// limit() - inUse(), 0 when nothing is left.
uint64_t available();

// Counts what the process holds at this moment as its starting point (the descriptors it
// inherited and those libraries opened before it). Called once early, while the process has
// one thread; the first inUse() does it when nobody did.
void calibrate();

// Closes every descriptor above standard error that this process inherited from whoever
// started it: those without close-on-exec, which are what survives an exec. Called first
// thing in main, before the process opens anything of its own.
void closeInherited();

}  // namespace HostFiles
