// The server's main routine: brings up both services, publishes the process service's node,
// starts the descriptor service's thread and serves "posix.service" on the calling thread.
#pragma once

[[noreturn]] void serverMain();
