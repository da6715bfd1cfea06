#include "channel_harness.h"

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "platform/runtime.h"

namespace {
class AcceptAll : public Object, public ConMan {
 public:
  bool connect(const Ref<ChnLink>&) override { return true; }
  void disconnect(const Ref<ChnLink>&) override {}
};
}  // namespace

ChannelHarness::ChannelHarness() {
  char pattern[] = "/tmp/posix-unit-XXXXXX";
  runtimeDir_ = mkdtemp(pattern);
  setenv("POSIX_RUNTIME_DIR", runtimeDir_.c_str(), 1);
  std::string why;
  Runtime::prepare(&why);
  channel_ = Chn::create(new AcceptAll(), String::create("unit.test"));
  if (channel_) client_ = chnConnect(Runtime::path("chn/unit.test").c_str());
}

ChannelHarness::~ChannelHarness() {
  if (client_ >= 0) close(client_);
  if (channel_) channel_->close();
  channel_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(runtimeDir_, ignored);
}

Ref<InMsg> ChannelHarness::request(uint32_t code, const std::vector<uint8_t>& data) {
  if (client_ < 0) return nullptr;
  px_frame_header header{PX_FRAME_REQUEST, code, nextId_++, static_cast<uint32_t>(data.size()), 0};
  std::vector<uint8_t> frame(sizeof header);
  std::memcpy(frame.data(), &header, sizeof header);
  frame.insert(frame.end(), data.begin(), data.end());
  if (send(client_, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size()))
    return nullptr;
  return channel_->receive();
}

bool ChannelHarness::reply(Reply* out, int timeoutMs) {
  pollfd pfd{client_, POLLIN, 0};
  if (client_ < 0 || poll(&pfd, 1, timeoutMs) != 1) return false;
  std::vector<uint8_t> buffer(PX_WIRE_MAX_FRAME);
  ssize_t n = recv(client_, buffer.data(), buffer.size(), 0);
  if (n < static_cast<ssize_t>(sizeof(px_frame_header))) return false;
  px_frame_header header;
  std::memcpy(&header, buffer.data(), sizeof header);
  *out = Reply{header.kind, header.code, header.id, {}, {}};
  size_t at = sizeof header;
  out->data.assign(buffer.begin() + at, buffer.begin() + at + header.data_len);
  at += header.data_len;
  for (uint32_t i = 0; i < header.block_count; ++i) {
    px_block_header block;
    std::memcpy(&block, buffer.data() + at, sizeof block);
    at += sizeof block;
    out->blocks.push_back({block.kind, {buffer.begin() + at, buffer.begin() + at + block.length}});
    at += block.length;
  }
  return true;
}

void ChannelHarness::dropClient() {
  if (client_ >= 0) close(client_);
  client_ = -1;
}
