// The per-thread error value: platform calls that fail store the host errno here.
#pragma once

#include <cstdint>

namespace Error {
void set(uint32_t value);
uint32_t get();
}  // namespace Error
