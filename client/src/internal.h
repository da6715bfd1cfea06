// The client library's internal headers, for the files of the C calls: frames, the runtime
// directory, connections and their pool, and the process's own state.
#pragma once

#include "connection.h"
#include "frame.h"
#include "pool.h"
#include "process_state.h"
#include "runtime.h"
