// The entry of the program image that the loader runs. Reason 1 loads the image (static
// initialisation, then main, which never returns); reason 0 unloads it (exit handlers).
#pragma once

#include <cstdint>

namespace Image {
constexpr uint32_t kReasonUnload = 0;
constexpr uint32_t kReasonLoad = 1;
void _start(uint64_t handle, uint32_t reason);
}  // namespace Image
