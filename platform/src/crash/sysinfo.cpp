// The kernel's information queries, hosted: the module at an address comes from the dynamic
// loader (dladdr), its extent from the module list.
#include "platform/sysinfo.h"

#include <dlfcn.h>

#include <cstring>

#include "platform/binary_services.h"
#include "platform/heap.h"
#include "platform/binary.h"

namespace {

void* moduleAtAddress(uint64_t address) {
  Dl_info found = {};
  if (address == 0 || dladdr(reinterpret_cast<void*>(address), &found) == 0 || !found.dli_fbase)
    return nullptr;

  uint64_t first = reinterpret_cast<uint64_t>(found.dli_fbase);
  uint64_t end = address + 1;
  const char* name = found.dli_fname ? found.dli_fname : "";
  // The module list knows the full extent, and the main program's real path where the loader
  // only has the name it was started under.
  std::vector<Ref<ModuleInfo>> modules = Binary::moduleList();
  for (const Ref<ModuleInfo>& module : modules) {
    if (!module->contains(address)) continue;
    first = module->first;
    end = module->end;
    if (module->name) name = module->name->c_str();
    break;
  }

  uint64_t length = std::strlen(name);
  uint64_t size = sizeof(Sys::ModuleAtAddress) + length + 1;
  auto* answer = static_cast<Sys::ModuleAtAddress*>(
      Heap::alloc(size, Heap::kSingle, __builtin_return_address(0)));
  if (!answer) return nullptr;
  answer->first = first;
  answer->end = end;
  answer->nameLength = length;
  std::memcpy(answer + 1, name, length + 1);
  return answer;
}

}  // namespace

namespace Sys {

void* info(uint32_t query, uint64_t argument) {
  if (query == kModuleAtAddress) return moduleAtAddress(argument);
  return nullptr;
}

}  // namespace Sys
