// The process registry: a weak listing of every record the server knows, indexed by pid, and
// the monitor that guards it. They are process-wide objects built by the server's static
// initialisation and released by its exit handlers.
//
// Finding a record by identity looks only at the listings of its pid, and a record takes its
// listings with it when it dies, so every call costs the same however many processes the
// server knows.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/proc.h"
#include "platform/sync.h"

class PosixProcess;

namespace ProcessRegistry {

void create();
void release();
void createMonitor();
void releaseMonitor();

Mon* monitor();

// Lists `process` (under the monitor, which the caller may already hold).
void add(const Ref<PosixProcess>& process);
// Removes one listing of `process`.
void remove(PosixProcess* process);
// Removes every listing of `process` (its destructor).
void forget(PosixProcess* process);
// The first living record listed with `identity`, or null.
Ref<PosixProcess> find(const ProcIdentity& identity);
// Every living record, each once (diagnostics; costs what the listing holds).
std::vector<Ref<PosixProcess>> living();
// Listings held, living or not (tests and diagnostics).
uint64_t size();

}  // namespace ProcessRegistry
