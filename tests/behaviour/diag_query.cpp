#include "diag_query.h"

#include <cstring>

#include "posix/wire.h"

namespace {

// Reads fixed-size values off a reply's data.
class Reader {
 public:
  explicit Reader(const std::vector<uint8_t>& data) : data_(data) {}
  bool get(void* out, size_t n) {
    if (data_.size() - at_ < n) return false;
    std::memcpy(out, data_.data() + at_, n);
    at_ += n;
    return true;
  }
  bool skip(size_t n) {
    if (data_.size() - at_ < n) return false;
    at_ += n;
    return true;
  }
  // A pid list: u32 count, then that many u64.
  bool pids(std::vector<uint64_t>* out) {
    uint32_t count = 0;
    if (!get(&count, sizeof count)) return false;
    for (uint32_t k = 0; k < count; ++k) {
      uint64_t pid = 0;
      if (!get(&pid, sizeof pid)) return false;
      if (out) out->push_back(pid);
    }
    return true;
  }

 private:
  const std::vector<uint8_t>& data_;
  size_t at_ = 0;
};

// Every page of list `code`; `records` reads one page's records and answers false when they
// cannot be read.
template <class F>
bool allPages(RawLink& link, uint32_t code, F&& records, int* pages, int timeoutMs) {
  uint64_t next = 0;
  int asked = 0;
  do {
    std::vector<uint8_t> ask;
    putU64(ask, next);
    RawReply reply;
    if (!link.roundTrip(code, static_cast<uint64_t>(++asked), ask, &reply, timeoutMs)) return false;
    Reader in(reply.data);
    uint32_t count = 0;
    if (reply.code != PX_RESULT_DONE || !in.get(&count, sizeof count)) return false;
    for (uint32_t k = 0; k < count; ++k) {
      if (!records(in)) return false;
    }
    next = 0;
    in.get(&next, sizeof next);  // absent: the list is complete
  } while (next != 0);
  if (pages) *pages = asked;
  return true;
}

}  // namespace

bool diagProcesses(RawLink& link, std::vector<px_diag_process>* out, int* pages, int timeoutMs) {
  return allPages(link, PX_DIAG_CMD_PROCESSES, [&](Reader& in) {
    px_diag_process record;
    uint32_t length = 0;  // the program's string follows the record
    if (!in.get(&record, sizeof record) || !in.get(&length, sizeof length) || !in.skip(length)) return false;
    out->push_back(record);
    return true;
  }, pages, timeoutMs);
}

bool diagInsidePipeCall(RawLink& link, uint64_t pid) {
  bool inside = false;
  bool read = allPages(link, PX_DIAG_CMD_PIPES, [&](Reader& in) {
    px_diag_pipe record;
    std::vector<uint64_t> callers;  // inside a read, then inside a write
    bool ok = in.get(&record, sizeof record) && in.pids(nullptr) && in.pids(nullptr) &&
              in.pids(&callers) && in.pids(&callers);
    for (uint64_t caller : callers) inside = inside || caller == pid;
    return ok;
  }, nullptr, 5000);
  return read && inside;
}
