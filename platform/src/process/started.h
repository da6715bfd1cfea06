// The host's clock as /proc counts a process's start time, which Binary::create reads around a
// start so that the started program's identity is known without waiting for /proc.
#pragma once

#include <cstdint>

// The boot-time clock in /proc's start-time ticks.
uint64_t bootTick();
