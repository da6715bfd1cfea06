// The crash dump: banner, module list, register dump with thread and process identification,
// stack trace with module and offset for every frame, and the number of running threads.
#pragma once

#include "platform/chario.h"
#include "platform/exception.h"

// Writes the dump of `context`. With a printer, the lines go to it as they are (a log printer
// adds its own prefix). With none, the dump prints on the debug console and begins every line
// with its severity letter: "E" for the banner, "W" for warnings, "V" for the rest.
void crashDump(const Definitions::Contexts::X86_64* context, const Ref<CharPrinter>& printer);

// Test hook: called by every dump right after its banner. A hook that faults makes each dump
// crash again, which is how tests reach the nesting limit of the handler. Null switches it off.
void setCrashDumpTestHook(void (*hook)());
