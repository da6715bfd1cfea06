// The crash dump, section by section. Every value is written in hexadecimal.
#include "crash/crash_dump.h"

#include <atomic>
#include <initializer_list>
#include <vector>

#include "crash/crash_stack_trace.h"
#include "crash/dump_lines.h"
#include "crash/module_history.h"
#include "platform/binary_services.h"
#include "platform/proc.h"
#include "platform/thread.h"
#include "platform/binary.h"

namespace {

using Context = Definitions::Contexts::X86_64;

std::atomic<void (*)()> g_testHook{nullptr};

void printModuleList(DumpLines& lines, ModuleHistory& history) {
  lines.text(DumpLines::kVerbose, "* Print ModuleList *");
  std::vector<Ref<ModuleInfo>> modules = Binary::moduleList();
  for (const Ref<ModuleInfo>& module : modules) {
    bool named = module->name && module->name->length() > 0;
    Ref<String> name = named ? module->name : String::create("<UNKNOWN>");
    lines.begin(DumpLines::kVerbose) << "Module: " << hex << module->first << " - " << hex
                                     << module->end - 1 << ": " << name;
    lines.end();
    history.add(module->first, module->end, name);
  }
}

struct Register {
  const char* name;
  uint64_t value;
};

void printRegisterRow(DumpLines& lines, std::initializer_list<Register> row) {
  CharPrinter& printer = lines.begin(DumpLines::kVerbose);
  for (const Register& reg : row) printer << reg.name << ": 0x" << hex << reg.value << " ";
  lines.end();
}

void printRegisters(DumpLines& lines, const Context& context) {
  lines.text(DumpLines::kVerbose, "* Register Dump *");
  lines.begin(DumpLines::kVerbose) << "Exception in Thread ID " << hex << Thd::current();
  lines.end();
  lines.begin(DumpLines::kVerbose) << "Process ID: " << hex << Proc::current();
  lines.end();
  lines.begin(DumpLines::kVerbose) << "Process name: " << Proc::name();
  lines.end();
  lines.begin(DumpLines::kVerbose) << "Thread name: " << Thd::name();
  lines.end();
  lines.begin(DumpLines::kVerbose) << "Exception Nr: 0x" << hex << context.trapNumber;
  lines.end();
  lines.begin(DumpLines::kVerbose) << "PFA:          0x" << hex << context.faultAddress;
  lines.end();
  lines.text(DumpLines::kVerbose, "Register Dump");
  printRegisterRow(lines, {{"rax", context.rax}, {"r10", context.r10}, {"rsp", context.rsp}});
  printRegisterRow(lines, {{"rbx", context.rbx}, {"r11", context.r11}, {"rbp", context.rbp}});
  printRegisterRow(lines, {{"rcx", context.rcx}, {"r12", context.r12}, {"rsi", context.rsi}});
  printRegisterRow(lines, {{"rdx", context.rdx}, {"r13", context.r13}, {"rdi", context.rdi}});
  printRegisterRow(lines, {{"r8", context.r8}, {"r14", context.r14}});
  printRegisterRow(lines, {{"r9", context.r9}, {"r15", context.r15}});
  printRegisterRow(lines, {{"rip", context.rip}});
  lines.begin(DumpLines::kVerbose) << "errorCode: " << hex << context.errorCode;
  lines.end();
  lines.begin(DumpLines::kVerbose) << "flags: " << hex << context.flags;
  lines.end();
}

void printThreadCount(DumpLines& lines) {
  Ref<ProcInfo> self = Proc::info(Proc::current());
  uint64_t threads = self ? self->threadCount() : 0;
  lines.begin(DumpLines::kVerbose) << "Running Threads: " << hex << threads;
  lines.end();
}

}  // namespace

void setCrashDumpTestHook(void (*hook)()) { g_testHook.store(hook); }

void crashDump(const Context* context, const Ref<CharPrinter>& printer) {
  static const Context kNoContext = {};
  const Context& regs = context ? *context : kNoContext;

  Ref<ModuleHistory> history = ModuleHistory::create();
  ModuleHistory::setCurrent(history);
  DumpLines lines(printer);
  lines.text(DumpLines::kError, "*** CRASH DUMP ***");
  if (void (*hook)() = g_testHook.load()) hook();

  Ref<Services::Binary::Client::CoreMemory> memory =
      Services::Binary::Client::CoreMemory::create();
  printModuleList(lines, *history);
  printRegisters(lines, regs);
  printStackTrace(lines, context, memory, *history);
  printThreadCount(lines);

  ModuleHistory::clearCurrent(history);
}
