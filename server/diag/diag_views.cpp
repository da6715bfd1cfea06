#include "diag/diag_views.h"

#include <posix/diag_service.h>
#include <posix/wire.h>

#include <algorithm>
#include <map>
#include <vector>

#include "fd/fd_table.h"
#include "fd/file_description_server_fs_item.h"
#include "fifo/file_description_server_fifo.h"
#include "diag/request_log.h"
#include "platform/heap.h"
#include "platform/host_files.h"
#include "platform/proc.h"
#include "process/posix_process.h"
#include "process/process_registry.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Room for the records of one reply: a frame holds the count and as many whole records as fit.
constexpr size_t kRoom = PX_WIRE_MAX_FRAME - PX_FRAME_HEADER_SIZE - sizeof(uint32_t);

template <class T>
void put(Bytes& out, const T& value) {
  const auto* p = reinterpret_cast<const uint8_t*>(&value);
  out.insert(out.end(), p, p + sizeof value);
}

void putString(Bytes& out, const Ref<String>& text) {
  uint32_t length = text ? static_cast<uint32_t>(text->length()) : 0;
  put(out, length);
  if (length) out.insert(out.end(), text->c_str(), text->c_str() + length);
}

// Collects records while they fit one reply, then writes the count and the records.
class Records {
 public:
  // Adds the record `write` makes, unless it would not fit; false once one did not.
  template <class Fn>
  bool add(Fn write) {
    Bytes record;
    write(record);
    if (full_ || body_.size() + record.size() > kRoom) return !(full_ = true);
    body_.insert(body_.end(), record.begin(), record.end());
    ++count_;
    return true;
  }
  uint32_t send(const Ref<OutMsg>& reply) const {
    reply->write(&count_, sizeof count_);
    if (!body_.empty()) reply->write(body_.data(), body_.size());
    return PX_RESULT_DONE;
  }

 private:
  Bytes body_;
  uint32_t count_ = 0;
  bool full_ = false;
};

void putPids(Bytes& out, std::vector<uint64_t> pids) {
  std::sort(pids.begin(), pids.end());
  pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
  put(out, static_cast<uint32_t>(pids.size()));
  for (uint64_t pid : pids) put(out, pid);
}

// The living records, in order of registration.
std::vector<Ref<PosixProcess>> living() {
  std::vector<Ref<PosixProcess>> out;
  MonLock lock(ProcessRegistry::monitor());
  TVector<WeakRef<PosixProcess>>* listing = ProcessRegistry::listing();
  for (uint64_t i = 0; listing && i < listing->count(); ++i) {
    Ref<PosixProcess> process = GcProxy::lockWeakRef(listing->get(i));
    if (process && !process->terminated()) out.push_back(process);
  }
  return out;
}

// What a descriptor's description is, as px_diag_descriptor tells it.
struct Described {
  px_diag_descriptor record = {};
  Ref<String> path;
  Ref<PosixFifoBase> end;
};

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
  putString(out, p.program());
}

}  // namespace

namespace DiagViews {

uint32_t processes(const Ref<OutMsg>& reply) {
  std::vector<Ref<PosixProcess>> all = living();
  std::vector<Ref<PosixProcess>> zombies;
  for (const Ref<PosixProcess>& p : all)
    for (Ref<PosixProcess>& z : p->zombies()) zombies.push_back(std::move(z));
  Records records;
  for (const Ref<PosixProcess>& p : all) {
    uint32_t state = p->startedHere() ? PX_DIAG_RUNNING : PX_DIAG_CONNECTED;
    records.add([&](Bytes& out) { putProcess(out, *p, state); });
  }
  for (const Ref<PosixProcess>& z : zombies)
    records.add([&](Bytes& out) { putProcess(out, *z, PX_DIAG_ZOMBIE); });
  return records.send(reply);
}

uint32_t descriptors(uint64_t pid, const Ref<OutMsg>& reply) {
  Ref<PosixProcess> process = PosixProcess::findByPid(pid);
  Ref<FDTable> table = process ? process->fdTable() : nullptr;
  if (!table) return PX_RESULT_NO_PROCESS;
  std::vector<Described> all;
  table->visit([&](int32_t fd, const FileDescriptor& entry) { all.push_back(describe(fd, entry)); });
  Records records;
  for (const Described& d : all) {
    records.add([&](Bytes& out) {
      put(out, d.record);
      putString(out, d.path);
    });
  }
  return records.send(reply);
}

uint32_t pipes(const Ref<OutMsg>& reply) {
  struct Pipe {
    Ref<Fifo> fifo;
    std::vector<uint64_t> holders[2], inside[2];
  };
  std::map<uint64_t, Pipe> found;
  for (const Ref<PosixProcess>& p : living()) {
    Ref<FDTable> table = p->fdTable();
    if (!table) continue;
    std::vector<Described> ends;
    table->visit([&](int32_t fd, const FileDescriptor& entry) {
      Described d = describe(fd, entry);
      if (d.end && d.end->fifo()) ends.push_back(std::move(d));
    });
    for (const Described& d : ends) {
      Pipe& pipe = found[uint64_t{d.record.pipe}];  // a copy: the packed field is not aligned
      pipe.fifo = d.end->fifo();
      const size_t side = d.record.end == 1 ? 0 : 1;
      pipe.holders[side].push_back(p->pid());
      std::vector<uint64_t> callers = d.end->callers();
      pipe.inside[side].insert(pipe.inside[side].end(), callers.begin(), callers.end());
    }
  }
  Records records;
  for (auto& [id, pipe] : found) {
    // Holders of the shared page wait in their own processes; the page lists who sleeps.
    for (size_t side : {0, 1}) {
      for (uint64_t pid : pipe.fifo->sleeping(side == 1)) {
        std::vector<uint64_t>& inside = pipe.inside[side];
        if (std::find(inside.begin(), inside.end(), pid) == inside.end()) inside.push_back(pid);
      }
    }
    records.add([&](Bytes& out) {
      uint32_t flags = (pipe.fifo->eof() ? 1u : 0u) | (pipe.fifo->broken() ? 2u : 0u);
      put(out, px_diag_pipe{id, pipe.fifo->size(), flags});
      for (const auto* list : {&pipe.holders[0], &pipe.holders[1], &pipe.inside[0], &pipe.inside[1]})
        putPids(out, *list);
    });
  }
  return records.send(reply);
}

uint32_t figures(const Ref<OutMsg>& reply) {
  px_diag_figures f = {};
  f.processes = living().size();
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
  for (const px_diag_command& c : RequestLog::commands())
    records.add([&](Bytes& out) { put(out, c); });
  return records.send(reply);
}

}  // namespace DiagViews
