// The process registry: a weak listing of every record the server knows, in order of
// registration, and the monitor that guards it. Both are process-wide objects built by the
// server's static initialisation and released by its exit handlers.
#pragma once

#include <cstdint>

#include "common/tvector.h"
#include "platform/sync.h"

class PosixProcess;

namespace ProcessRegistry {

void create();
void release();
void createMonitor();
void releaseMonitor();

// The listing and its monitor; enter the monitor around every use of the listing.
TVector<WeakRef<PosixProcess>>* listing();
Mon* monitor();

// Appends `process` (under the monitor, which the caller may already hold).
void add(const Ref<PosixProcess>& process);
// Removes the first listing of `process`.
void remove(PosixProcess* process);
// Slots listed, living or not (tests and diagnostics).
uint64_t size();

}  // namespace ProcessRegistry
