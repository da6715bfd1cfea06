#include "diag_client.h"

#include <errno.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "posix/wire.h"
#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

// Reads values off a reply's data; ok() turns false once one did not fit.
class Reader {
 public:
  explicit Reader(const std::vector<uint8_t>& data) : data_(data) {}
  template <class T>
  T get() {
    T value{};
    if (data_.size() - at_ < sizeof value) {
      ok_ = false;
      return value;
    }
    std::memcpy(&value, data_.data() + at_, sizeof value);
    at_ += sizeof value;
    return value;
  }
  std::string string() {
    uint32_t n = get<uint32_t>();
    if (!ok_ || data_.size() - at_ < n) {
      ok_ = false;
      return "";
    }
    std::string s(reinterpret_cast<const char*>(data_.data() + at_), n);
    at_ += n;
    return s;
  }
  std::vector<uint64_t> pids() {
    std::vector<uint64_t> out(get<uint32_t>());
    if (out.size() > (data_.size() - at_) / sizeof(uint64_t)) ok_ = false;
    for (size_t i = 0; ok_ && i < out.size(); ++i) out[i] = get<uint64_t>();
    return ok_ ? out : std::vector<uint64_t>{};
  }
  bool ok() const { return ok_; }
  size_t remaining() const { return data_.size() - at_; }

 private:
  const std::vector<uint8_t>& data_;
  size_t at_ = 0;
  bool ok_ = true;
};

namespace {

void putU64(std::vector<uint8_t>& out, uint64_t v) {
  const auto* p = reinterpret_cast<const uint8_t*>(&v);
  out.insert(out.end(), p, p + sizeof v);
}

// What a list's call answers: its error, else its result as an errno value (11: EAGAIN, the
// server takes no more requests of this process now).
int listed(int err, uint32_t result) {
  if (err != 0) return err;
  return result == PX_RESULT_DONE ? 0 : result == PX_RESULT_LIMIT ? EAGAIN : EPROTO;
}

}  // namespace

int DiagLink::open() {
  // Refused for the reasons runtimeRefusal() explains; the link itself checks them again.
  if (!runtimeRefusal().empty()) return EACCES;
  return socket_.open(px_runtime_dir(), PX_DIAG_SERVICE_NAME);
}

int DiagLink::receive(uint64_t id, uint32_t* result, std::vector<uint8_t>* reply, int timeoutMs) {
  using posix::host::ServiceSocket;
  std::vector<uint8_t> frame(PX_WIRE_MAX_FRAME);
  for (;;) {
    int64_t deadline = timeoutMs < 0 ? ServiceSocket::kLinkTimeout : posix::host::monotonicMs() + timeoutMs;
    ssize_t n = socket_.receive(frame.data(), frame.size(), deadline);
    if (n == -EAGAIN && timeoutMs < 0) continue;  // waits for ever: past the link's time-out
    if (n < 0) return n == -EAGAIN ? ETIMEDOUT : static_cast<int>(-n);
    px_frame_header h;
    if (static_cast<size_t>(n) < sizeof h || static_cast<size_t>(n) > frame.size()) return EPROTO;
    std::memcpy(&h, frame.data(), sizeof h);
    if (h.kind != PX_FRAME_REPLY || h.data_len > static_cast<size_t>(n) - sizeof h) return EPROTO;
    if (h.id == 0 && h.code == PX_RESULT_LIMIT) return EAGAIN;
    if (h.id != id) continue;
    *result = h.code;
    reply->assign(frame.begin() + sizeof h, frame.begin() + static_cast<std::ptrdiff_t>(sizeof h + h.data_len));
    return 0;
  }
}

int DiagLink::send(uint32_t code, const std::vector<uint8_t>& data, uint64_t* id) {
  px_frame_header h = {};
  h.kind = PX_FRAME_REQUEST;
  h.code = code;
  h.id = *id = nextId_++;
  h.data_len = static_cast<uint32_t>(data.size());
  std::vector<uint8_t> frame(sizeof h);
  std::memcpy(frame.data(), &h, sizeof h);
  frame.insert(frame.end(), data.begin(), data.end());
  return socket_.send(frame.data(), frame.size()) == 0 ? 0 : ECONNRESET;
}

int DiagLink::call(uint32_t code, const std::vector<uint8_t>& data, uint32_t* result,
                   std::vector<uint8_t>* reply) {
  uint64_t id = 0;
  if (int err = send(code, data, &id)) return err;
  return receive(id, result, reply, posix::host::replyTimeoutMs());
}

int DiagLink::pages(uint32_t code, const std::vector<uint8_t>& ask,
                    const std::function<void(Reader&, uint32_t)>& page, uint32_t* result) {
  // Each page says where the next starts, always further on; 0 ends the list. An answer
  // without it (a server that sends whole lists) is complete too.
  for (uint64_t first = 0;;) {
    std::vector<uint8_t> request = ask, data;
    putU64(request, first);
    if (int err = call(code, request, result, &data)) return err;
    if (*result != PX_RESULT_DONE) return 0;
    Reader r(data);
    uint32_t count = r.get<uint32_t>();
    if (!r.ok()) return EPROTO;
    page(r, count);
    if (!r.ok()) return EPROTO;
    uint64_t next = r.remaining() >= sizeof next ? r.get<uint64_t>() : 0;
    if (next == 0) return 0;
    if (next <= first) return EPROTO;
    first = next;
  }
}

int DiagLink::processes(std::vector<ProcessView>* out) {
  uint32_t result = 0;
  int err = pages(PX_DIAG_CMD_PROCESSES, {}, [&](Reader& r, uint32_t count) {
    for (uint32_t k = 0; k < count && r.ok(); ++k) {
      ProcessView p;
      p.record = r.get<px_diag_process>();
      p.program = r.string();
      out->push_back(std::move(p));
    }
  }, &result);
  return listed(err, result);
}

int DiagLink::descriptors(uint64_t pid, std::vector<DescriptorView>* out) {
  std::vector<uint8_t> request;
  putU64(request, pid);
  uint32_t result = 0;
  int err = pages(PX_DIAG_CMD_DESCRIPTORS, request, [&](Reader& r, uint32_t count) {
    for (uint32_t k = 0; k < count && r.ok(); ++k) {
      DescriptorView d;
      d.record = r.get<px_diag_descriptor>();
      d.path = r.string();
      out->push_back(std::move(d));
    }
  }, &result);
  return err == 0 && result == PX_RESULT_NO_PROCESS ? ESRCH : listed(err, result);
}

int DiagLink::pipes(std::vector<PipeView>* out) {
  // A pipe held across several pages comes in each with the holders that page found.
  std::map<uint64_t, PipeView> merged;
  auto join = [](std::vector<uint64_t>& into, const std::vector<uint64_t>& more) {
    into.insert(into.end(), more.begin(), more.end());
    std::sort(into.begin(), into.end());
    into.erase(std::unique(into.begin(), into.end()), into.end());
  };
  uint32_t result = 0;
  int err = pages(PX_DIAG_CMD_PIPES, {}, [&](Reader& r, uint32_t count) {
    for (uint32_t k = 0; k < count && r.ok(); ++k) {
      px_diag_pipe record = r.get<px_diag_pipe>();
      PipeView& p = merged[uint64_t{record.pipe}];
      p.record = record;  // the latest page's state
      for (auto* list : {&p.readers, &p.writers, &p.reading, &p.writing}) join(*list, r.pids());
    }
  }, &result);
  for (auto& [id, p] : merged) out->push_back(std::move(p));
  return listed(err, result);
}

int DiagLink::figures(FiguresView* out) {
  uint32_t result = 0;
  std::vector<uint8_t> data;
  if (int err = call(PX_DIAG_CMD_FIGURES, {}, &result, &data)) return err;
  Reader r(data);
  out->figures = r.get<px_diag_figures>();
  out->commands.resize(result == PX_RESULT_DONE ? r.get<uint32_t>() : 0);
  for (px_diag_command& c : out->commands) c = r.get<px_diag_command>();
  return result == PX_RESULT_DONE && r.ok() ? 0 : EPROTO;
}

int DiagLink::monitor(uint64_t pid) {
  std::vector<uint8_t> request;
  putU64(request, pid);
  return send(PX_DIAG_CMD_MONITOR, request, &monitorId_);
}

int DiagLink::next(EventBatch* out, int timeoutMs) {
  uint32_t result = 0;
  std::vector<uint8_t> data;
  if (int err = receive(monitorId_, &result, &data, timeoutMs)) return err;
  if (result == PX_RESULT_LIMIT) return EBUSY;  // as many monitors as the server allows
  Reader r(data);
  out->lost = r.get<uint64_t>();
  out->events.resize(result == PX_RESULT_DONE ? r.get<uint32_t>() : 0);
  for (px_diag_event& e : out->events) e = r.get<px_diag_event>();
  // The strings follow the events; a server that sends none leaves each one empty.
  out->texts.assign(out->events.size(), std::string());
  if (r.remaining() > 0)
    for (std::string& text : out->texts) text = r.string();
  return result == PX_RESULT_DONE && r.ok() ? 0 : EPROTO;
}

const px::Command* commandEntry(uint32_t service, uint32_t code) {
  switch (service) {
    case PX_DIAG_PROCESS_SERVICE: return px::find<px::Command>(px::kProcessCommands, code);
    case PX_DIAG_FD_SERVICE: return px::find<px::Command>(px::kFdCommands, code);
    case PX_DIAG_STREAM_SERVICE: return px::find<px::Command>(px::kStreamCommands, code);
    // The three services of an opened item share one numbering.
    case PX_DIAG_SEEKABLE_SERVICE:
    case PX_DIAG_RESIZABLE_SERVICE:
    case PX_DIAG_ITEM_SERVICE: return px::find<px::Command>(px::kItemCommands, code);
    case PX_DIAG_FIFO_STATUS_SERVICE: return px::find<px::Command>(px::kFifoCommands, code);
    default: return nullptr;
  }
}

std::string commandName(uint32_t service, uint32_t code) {
  const px::Command* command = commandEntry(service, code);
  return command != nullptr ? command->name : std::to_string(code);
}

}  // namespace posixctl
