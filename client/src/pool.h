// The pool of connections to "posix.service" and one request on it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "connection.h"
#include "frame.h"

namespace pxc {

uint64_t nextRequestId();
// The pool: a connection for one call. release(conn, reusable=false) closes it.
Connection* acquire(int* err, bool* reused);
void release(Connection* conn, bool reusable);
// One request on a pooled connection: 0 or an errno value; retries once on a fresh connection
// when a pooled one turns out to lead to a server that has gone before the request was sent.
// A request the server answers at once fails with ETIMEDOUT when no reply comes within the
// reply time-out (posix::host::replyTimeoutMs(): 20 s, or POSIX_REPLY_TIMEOUT_MS); one that may legitimately wait (`mayWait`: a blocking wait) waits for ever.
// `fdCount` descriptors at `fds` go with the request (the server gets copies).
int transact(FrameWriter& req, Reply* out, bool mayWait = false, const int* fds = nullptr,
             size_t fdCount = 0);
// Drops every pooled connection when the process is a fork of the one that made them.
void checkFork();
void resetPool();

}  // namespace pxc
