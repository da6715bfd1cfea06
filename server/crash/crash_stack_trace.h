// The stack trace section of a crash dump.
#pragma once

#include "crash/dump_lines.h"
#include "crash/module_history.h"
#include "platform/binary_services.h"

// Walks the stack of `context` through `memory` and prints every frame with its module and
// offset, adding the modules it has to look up to `history`. Without a walk (no context, no
// memory view, or a frame pointer that leads nowhere) it prints a warning instead.
void printStackTrace(DumpLines& lines, const Definitions::Contexts::X86_64* context,
                     const Ref<Services::Binary::Client::CoreMemory>& memory,
                     ModuleHistory& history);
