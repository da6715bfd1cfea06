#include "diag/diag_views.h"

#include <posix/diag_service.h>

#include <algorithm>
#include <vector>

#include "diag/diag_reply.h"
#include "diag/diag_sources.h"
#include "common/request_log.h"
#include "platform/heap.h"
#include "platform/host_files.h"
#include "platform/proc.h"

using namespace DiagReply;
using DiagSources::Described;

namespace {

// Zombies come after every living process: their keys have the top bit set.
constexpr uint64_t kZombieKey = uint64_t{1} << 63;

struct Listed {
  uint64_t key;  // the pid, with kZombieKey for a zombie
  Ref<PosixProcess> process;
  uint32_t state;
};

// Every process in the order of the listing: the living by pid, then the zombies by pid.
std::vector<Listed> listing() {
  std::vector<Ref<PosixProcess>> living = DiagSources::livingByPid();
  std::vector<Listed> out;
  for (const Ref<PosixProcess>& p : living)
    out.push_back({p->pid(), p, p->startedHere() ? PX_DIAG_RUNNING : PX_DIAG_CONNECTED});
  const size_t zombiesFrom = out.size();
  for (const Ref<PosixProcess>& p : living)
    for (Ref<PosixProcess>& z : p->zombies()) out.push_back({kZombieKey | z->pid(), std::move(z), PX_DIAG_ZOMBIE});
  std::stable_sort(out.begin() + static_cast<std::ptrdiff_t>(zombiesFrom), out.end(),
                   [](const Listed& a, const Listed& b) { return a.key < b.key; });
  return out;
}

void putProcess(Bytes& out, const PosixProcess& p, uint32_t state) {
  px_diag_process record = {};
  record.pid = p.pid();
  Ref<PosixProcess> parent = p.parent();
  record.parent = parent ? parent->pid() : 0;
  record.group = p.groupId();
  record.state = state;
  record.exit_code = state == PX_DIAG_ZOMBIE ? p.exitCode() : 0;
  Ref<FDTable> table = p.fdTable();
  record.descriptors = table ? table->size() : 0;
  record.children = static_cast<uint32_t>(p.childCount());
  record.waits = static_cast<uint32_t>(p.waitCount());
  record.pending = p.pendingSignals();
  record.signal_waiter = p.hasSignalWaiter() ? 1 : 0;
  put(out, record);
  putText(out, p.program());
}

}  // namespace

namespace DiagViews {

uint32_t processes(uint64_t first, const Ref<OutMsg>& reply) {
  std::vector<Listed> all = listing();
  auto from = std::lower_bound(all.begin(), all.end(), first,
                               [](const Listed& l, uint64_t key) { return l.key < key; });
  Records records;
  uint64_t next = 0;
  for (auto it = from; it != all.end(); ++it) {
    if (records.count() < kProcessesPerPage &&
        records.add([&](Bytes& out) { putProcess(out, *it->process, it->state); }))
      continue;
    // The next page starts at this record's key; records of that key already listed (two of
    // one pid) go with it, unless they are all this page holds.
    next = it->key;
    auto run = it;
    while (run != from && (run - 1)->key == next) --run;
    if (run == from) {
      next += 1;
    } else {
      records.keep(static_cast<size_t>(run - from));
    }
    break;
  }
  return records.send(reply, next);
}

uint32_t descriptors(uint64_t pid, uint64_t first, const Ref<OutMsg>& reply) {
  Ref<PosixProcess> process = PosixProcess::findByPid(pid);
  Ref<FDTable> table = process ? process->fdTable() : nullptr;
  if (!table) return PX_RESULT_NO_PROCESS;
  // A table holds at most 4096 descriptors, and a frame some hundreds of records at least.
  std::vector<Described> all;
  table->visit([&](int32_t fd, const FileDescriptor& entry) {
    if (static_cast<uint64_t>(fd) >= first) all.push_back(DiagSources::describe(fd, entry));
  });
  Records records;
  uint64_t next = 0;
  for (const Described& d : all) {
    bool added = records.add([&](Bytes& out) {
      put(out, d.record);
      putText(out, d.path);
    });
    if (!added) {
      next = static_cast<uint64_t>(d.record.fd);  // never 0: the first record always fits
      break;
    }
  }
  return records.send(reply, next);
}

uint32_t figures(const Ref<OutMsg>& reply) {
  px_diag_figures f = {};
  f.processes = DiagSources::livingByPid().size();
  Ref<ProcInfo> self = Proc::info(Proc::current());
  f.threads = self ? self->threadCount() : 0;
  Heap::Stats heap = Heap::stats();
  f.heap_bytes = heap.liveBytes;
  f.heap_blocks = heap.liveBlocks;
  f.descriptors = HostFiles::inUse();
  f.descriptor_limit = HostFiles::limit();
  f.links = ChnLink::openLinks();
  reply->write(&f, sizeof f);
  Records records;
  for (const px_diag_command& c : RequestLog::commands()) records.add([&](Bytes& out) { put(out, c); });
  return records.send(reply);
}

}  // namespace DiagViews
