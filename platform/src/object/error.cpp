#include "platform/error.h"

namespace {
thread_local uint32_t t_error = 0;
}

namespace Error {
void set(uint32_t value) { t_error = value; }
uint32_t get() { return t_error; }
}  // namespace Error
