#include "channel_harness.h"

#include <string>

ChannelHarness::ChannelHarness() {
  std::string why;
  Runtime::prepare(&why);
  channel_ = Chn::create(new chntest::RecordingConMan(), String::create("unit.test"));
  if (channel_) client_ = std::make_unique<chntest::Client>(Runtime::path("chn/unit.test"));
}

ChannelHarness::~ChannelHarness() {
  client_.reset();
  if (channel_) channel_->close();
}

Ref<InMsg> ChannelHarness::request(uint32_t code, const std::vector<uint8_t>& data) {
  if (!client_ || !client_->send(chntest::request(code, nextId_++, data))) return nullptr;
  return channel_->receive();
}

bool ChannelHarness::reply(Reply* out, int timeoutMs) {
  return client_ && client_->recvFrame(out, timeoutMs);
}

void ChannelHarness::dropClient() { client_.reset(); }
