// The process registry: a weak listing of every record the server knows, in order of
// registration, an index of the same listings by pid, and the monitor that guards both. They
// are process-wide objects built by the server's static initialisation and released by its
// exit handlers.
//
// Finding a record by identity looks only at the listings of its pid, so it costs the same
// however many processes the server knows. Listings of records that have died are dropped
// where find passes them, and all at once whenever the listing has doubled since the last
// such sweep (records of processes that connected by themselves are never removed otherwise).
#pragma once

#include <cstdint>

#include "common/tvector.h"
#include "platform/proc.h"
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
// The first living record listed with `identity`, or null.
Ref<PosixProcess> find(const ProcIdentity& identity);
// Slots listed, living or not (tests and diagnostics).
uint64_t size();

}  // namespace ProcessRegistry
