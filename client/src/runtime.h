// The runtime directory the library finds its server in.
#pragma once

#include <cstdint>
#include <string>

#include "host/runtime_rule.h"

namespace pxc {

// The runtime directory (host/runtime_rule.h), found on first use and kept until reset().
const std::string& runtimeDir();
void resetRuntimeDir();
// Changes whenever resetRuntimeDir runs (px_fini); never 0.
uint64_t runtimeGeneration();
// Whether the runtime directory is the caller's own: a directory, not a symlink, owned by the
// effective uid and closed to group and others (what the server itself demands). 0; ENOENT
// when it does not exist; EACCES when it is someone else's or open to others. Every link
// checks it again as it opens (ServiceSocket::open).
int checkRuntimeDir();

}  // namespace pxc
