// The exit-handler list: handlers registered during start-up that release process-wide objects
// when the image is unloaded. New handlers go to the head, so they run in reverse order of
// registration. InitCode's lock guards the list and is held while each handler runs.
#pragma once

#include <cstdint>

using ExitHandler = void (*)();

// 0 when registered, -1 when no list node could be had.
int32_t registerExitHandler(ExitHandler handler);
// Runs and removes every registered handler.
void runExitHandlers();
