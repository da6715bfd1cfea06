// The pipes view: pipes are found through the descriptor tables, so listing them walks every
// table. One page walks a budget of entries (kWalkBudget, processes counted too), in pid order
// and by descriptor number within a table, and says where it stopped: the next page starts at
// (pid << 20) | descriptor number (numbers are below 2^20). A pipe whose holders span several
// pages appears in each with the holders that page found; the client merges them by number.
#include <posix/diag_service.h>
#include <posix/pipe_page.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

#include "diag/diag_reply.h"
#include "diag/diag_sources.h"
#include "diag/diag_views.h"

using namespace DiagReply;
using DiagSources::Described;

namespace {

constexpr unsigned kNumberBits = 20;
constexpr uint64_t kNumberMask = (uint64_t{1} << kNumberBits) - 1;
// Pids one page lists inside a read or a write of one end at most.
constexpr size_t kMaxInside = 256;
// What one pipe adds to a record at most beside its pid lists: the fixed part, four counts,
// and the sleepers of its shared page, listed when the record is written.
constexpr size_t kPipeBytes = sizeof(px_diag_pipe) + 4 * sizeof(uint32_t) + PX_PIPE_SLEEPERS * sizeof(uint64_t);
// What one descriptor can add: a new pipe, its holder and a full inside list.
constexpr size_t kLargestStep = kPipeBytes + sizeof(uint64_t) * (1 + kMaxInside);

class PipeWalk {
 public:
  // False once this page has done its work or its records could fill the frame.
  bool open() const { return work_ < DiagViews::kWalkBudget && bytes_ + kLargestStep <= kRoom; }
  void count() { ++work_; }

  // Notes that `pid` holds the end `d` describes, and who is inside a call on that end.
  void take(uint64_t pid, const Described& d) {
    auto [at, made] = found_.try_emplace(uint64_t{d.record.pipe});  // a copy: the field is packed
    Pipe& pipe = at->second;
    if (made) bytes_ += kPipeBytes;
    pipe.fifo = d.end->fifo();
    const size_t side = d.record.end == 1 ? 0 : 1;
    add(pipe.lists[side], pid, SIZE_MAX);
    for (uint64_t caller : d.end->callers()) add(pipe.lists[2 + side], caller, kMaxInside);
  }

  uint32_t send(const Ref<OutMsg>& reply, uint64_t next) {
    Records records;
    for (auto& [id, pipe] : found_) {
      // Holders of the shared page wait in their own processes; the page lists who sleeps.
      for (size_t side : {0, 1})
        for (uint64_t pid : pipe.fifo->sleeping(side == 1)) add(pipe.lists[2 + side], pid, SIZE_MAX);
      records.add([&](Bytes& out) {
        uint32_t flags = (pipe.fifo->eof() ? 1u : 0u) | (pipe.fifo->broken() ? 2u : 0u);
        put(out, px_diag_pipe{id, pipe.fifo->size(), flags});
        for (const std::vector<uint64_t>& list : pipe.lists) putPids(out, list);
      });
    }
    return records.send(reply, next);
  }

 private:
  struct Pipe {
    Ref<Fifo> fifo;
    std::vector<uint64_t> lists[4];  // holding the read end, the write end; inside a read, a write
  };

  void add(std::vector<uint64_t>& list, uint64_t pid, size_t most) {
    if (list.size() >= most || std::find(list.begin(), list.end(), pid) != list.end()) return;
    list.push_back(pid);
    bytes_ += sizeof pid;
  }

  std::map<uint64_t, Pipe> found_;
  size_t work_ = 0;
  size_t bytes_ = 0;  // what the records will take, the sleepers counted in advance
};

}  // namespace

namespace DiagViews {

uint32_t pipes(uint64_t first, const Ref<OutMsg>& reply) {
  const uint64_t firstPid = first >> kNumberBits;
  PipeWalk walk;
  uint64_t next = 0;
  for (const Ref<PosixProcess>& p : DiagSources::livingByPid()) {
    if (p->pid() < firstPid) continue;
    const uint64_t from = p->pid() == firstPid ? first & kNumberMask : 0;
    if (!walk.open()) {
      next = p->pid() << kNumberBits | from;
      break;
    }
    walk.count();
    Ref<FDTable> table = p->fdTable();
    if (!table) continue;
    // Under the table's monitor; an end's callers are behind a lock of their own, taken
    // under no other.
    int64_t stoppedAt = -1;
    table->visit([&](int32_t fd, const FileDescriptor& entry) {
      if (static_cast<uint64_t>(fd) < from || stoppedAt >= 0) return;
      if (!walk.open()) {
        stoppedAt = fd;
        return;
      }
      walk.count();
      Described d = DiagSources::describe(fd, entry);
      if (d.end && d.end->fifo()) walk.take(p->pid(), d);
    });
    if (stoppedAt >= 0) {
      next = p->pid() << kNumberBits | static_cast<uint64_t>(stoppedAt);
      break;
    }
  }
  return walk.send(reply, next);
}

}  // namespace DiagViews
