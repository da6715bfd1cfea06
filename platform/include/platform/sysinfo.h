// The kernel's information queries. Each answer is a buffer from the platform heap that the
// caller releases with Heap::free(buffer, Heap::kSingle, caller).
#pragma once

#include <cstdint>

namespace Sys {

// Queries.
constexpr uint32_t kModuleAtAddress = 1;  // argument: an address in this process

// Answer of kModuleAtAddress: this header, then the module's path as zero-terminated bytes.
struct ModuleAtAddress {
  uint64_t first;       // the module's first address
  uint64_t end;         // just past its last address (one past the asked address when unknown)
  uint64_t nameLength;  // bytes of the path, without the terminating zero

  const char* name() const { return reinterpret_cast<const char*>(this + 1); }
};

// Null when the query is unknown or has no answer (an address in no loaded module).
void* info(uint32_t query, uint64_t argument);

}  // namespace Sys
