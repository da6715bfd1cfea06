// What the introspection service tells a test of the server's state, so that a test waits for
// a state (a wait that has reached the server, a call inside a pipe, links that have closed)
// instead of for an amount of time.
#pragma once

#include <cstdint>
#include <vector>

#include "posix/diag_service.h"
#include "raw_link.h"

// Lists come in pages: each is asked from 0 and then from every reply's `next` until it is 0.
// False when a page is not answered within `timeoutMs` or cannot be read.

// The records of every process, in list order; *pages counts the pages asked.
bool diagProcesses(RawLink& link, std::vector<px_diag_process>* out, int* pages = nullptr,
                   int timeoutMs = 5000);
// Whether some pipe lists `pid` inside a read or a write of one of its ends now.
bool diagInsidePipeCall(RawLink& link, uint64_t pid);
