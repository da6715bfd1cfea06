// What the introspection service's views read: the living process records in the order the
// views page them (by pid), and what a descriptor's description is.
#pragma once

#include <posix/diag_service.h>

#include <cstdint>
#include <vector>

#include "fd/fd_table.h"
#include "fifo/posix_fifo.h"
#include "platform/string.h"
#include "process/posix_process.h"

namespace DiagSources {

// The living records in ascending pid order (two records of one pid in order of registration).
std::vector<Ref<PosixProcess>> livingByPid();

// What a descriptor's description is, as px_diag_descriptor tells it.
struct Described {
  px_diag_descriptor record = {};
  Ref<String> path;         // an opened item's
  Ref<PosixFifoBase> end;   // a pipe end's
};
Described describe(int32_t fd, const FileDescriptor& entry);

}  // namespace DiagSources
