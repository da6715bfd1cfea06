#include "crash/crash_stack_trace.h"

#include "platform/heap.h"
#include "platform/sysinfo.h"

namespace {

using Services::Binary::Client::StackWalker;

// The index in `history` of the module that holds `address`. An address outside every module
// met so far is looked up in the kernel, and the answer joins the history. When the kernel
// knows no module either, the index lies beyond the history's entries.
uint64_t moduleIndex(ModuleHistory& history, uint64_t address) {
  uint64_t index = history.find(address);
  if (index < history.count()) return index;
  auto* answer = static_cast<Sys::ModuleAtAddress*>(Sys::info(Sys::kModuleAtAddress, address));
  if (!answer) return index;
  Ref<String> name = String::create(answer->name(), static_cast<int64_t>(answer->nameLength));
  history.add(answer->first, answer->end, name);
  Heap::free(answer, Heap::kSingle, __builtin_return_address(0));
  return history.find(address);
}

void printFrame(DumpLines& lines, ModuleHistory& history, const StackWalker::Frame& frame) {
  lines.begin(DumpLines::kVerbose) << "FRAME IP: " << hex << frame.ip;
  lines.end();

  Ref<ModuleInfo> module = history.at(moduleIndex(history, frame.ip));
  CharPrinter& printer = lines.begin(DumpLines::kVerbose) << "Module: ";
  if (module && module->name)
    printer << module->name;
  else if (module)
    printer << "<UNKNOWN>";
  else
    printer << "invalid index";
  // Without a module the offset is the address itself.
  printer << ", Offset: " << hex << frame.ip - (module ? module->first : 0);
  lines.end();

  if (!frame.bpValid) {
    lines.text(DumpLines::kWarning, "BP not valid");
  } else {
    lines.begin(DumpLines::kVerbose) << "BP: " << hex << frame.bp;
    lines.end();
  }
}

}  // namespace

void printStackTrace(DumpLines& lines, const Definitions::Contexts::X86_64* context,
                     const Ref<Services::Binary::Client::CoreMemory>& memory,
                     ModuleHistory& history) {
  Ref<StackWalker> walker = StackWalker::create(context, memory);
  if (!walker) {
    lines.text(DumpLines::kWarning, "Failed to create stack walk instance");
    return;
  }
  lines.text(DumpLines::kVerbose, "* Print Stracktrace *");
  lines.begin(DumpLines::kVerbose) << "IP: " << hex << context->rip;
  lines.end();
  StackWalker::Frame frame;
  while (walker->next(&frame)) printFrame(lines, history, frame);
}
