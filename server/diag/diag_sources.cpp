#include "diag/diag_sources.h"

#include <algorithm>

#include "fd/file_description_server_fs_item.h"
#include "fifo/file_description_server_fifo.h"
#include "process/process_registry.h"

namespace DiagSources {

std::vector<Ref<PosixProcess>> livingByPid() {
  std::vector<Ref<PosixProcess>> out = ProcessRegistry::living();
  std::erase_if(out, [](const Ref<PosixProcess>& process) { return process->terminated(); });
  std::stable_sort(out.begin(), out.end(),
                   [](const Ref<PosixProcess>& a, const Ref<PosixProcess>& b) { return a->pid() < b->pid(); });
  return out;
}

Described describe(int32_t fd, const FileDescriptor& entry) {
  Described d;
  d.record.fd = fd;
  d.record.offset = ~uint64_t{0};
  if (!entry.server) return d;  // a reserved number: type 0
  d.record.type = entry.server->type();
  FileDescriptionServer* server = entry.server.get();
  if (auto* item = dynamic_cast<FileDescriptionServerFSItem*>(server)) {
    d.path = item->item()->path();
    if (item->item()->seekable()) d.record.offset = item->item()->position();
  } else if (auto* fifo = dynamic_cast<FileDescriptionServerFIFO*>(server)) {
    d.end = fifo->fifoEnd();
    d.record.end = dynamic_cast<PosixFifoRead*>(d.end.get()) ? 1 : 2;
    d.record.pipe = d.end->fifo() ? d.end->fifo()->id() : 0;
  }
  return d;
}

}  // namespace DiagSources
