// The modules loaded in this process, from the dynamic loader's list of program headers.
#include <link.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <vector>

#include "platform/binary_services.h"
#include "platform/binary.h"

namespace {

struct Collector {
  std::vector<Ref<ModuleInfo>>* modules;
  Ref<String> programPath;  // the main program's path, which the loader leaves empty
  bool sawProgram = false;
};

Ref<String> programPath() {
  char path[PATH_MAX];
  int savedErrno = errno;
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  errno = savedErrno;
  if (n <= 0) return nullptr;
  return String::create(path, n);
}

int collect(struct dl_phdr_info* info, size_t /*size*/, void* data) {
  auto* collector = static_cast<Collector*>(data);
  uint64_t first = UINT64_MAX;
  uint64_t end = 0;
  for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& header = info->dlpi_phdr[i];
    if (header.p_type != PT_LOAD) continue;
    uint64_t start = info->dlpi_addr + header.p_vaddr;
    if (start < first) first = start;
    if (start + header.p_memsz > end) end = start + header.p_memsz;
  }
  // The loader reports the main program first.
  bool isProgram = !collector->sawProgram;
  collector->sawProgram = true;
  if (end <= first) return 0;  // nothing mapped

  Ref<String> name;
  if (info->dlpi_name && info->dlpi_name[0])
    name = String::create(info->dlpi_name);
  else if (isProgram)
    name = collector->programPath;
  collector->modules->push_back(ModuleInfo::create(first, end, name));
  return 0;
}

}  // namespace

std::vector<Ref<ModuleInfo>> Binary::moduleList() {
  std::vector<Ref<ModuleInfo>> modules;
  Collector collector{&modules, programPath()};
  dl_iterate_phdr(&collect, &collector);
  return modules;
}
