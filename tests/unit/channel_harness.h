// An in-process channel with one raw client socket, so unit tests can hand real requests to the
// server's objects and read the replies those objects send.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform_chn_support.h"

class ChannelHarness {
 public:
  using Reply = chntest::Frame;

  // Uses (and on destruction removes) a fresh runtime directory.
  ChannelHarness();
  ~ChannelHarness();

  // Sends a request from the client and answers it as the channel received it.
  Ref<InMsg> request(uint32_t code, const std::vector<uint8_t>& data = {});
  // The next reply to the client; false when none came within `timeoutMs`.
  bool reply(Reply* out, int timeoutMs = 2000);
  // Shuts the client side down (as a client that went away).
  void dropClient();

 private:
  chntest::RuntimeDirScope runtimeDir_;  // first in, last out: the channel lives inside it
  Ref<Chn> channel_;
  std::unique_ptr<chntest::Client> client_;
  uint64_t nextId_ = 1;
};

// Appends a value's bytes to a request's data.
template <class T>
void put(std::vector<uint8_t>* data, const T& value) {
  auto* p = reinterpret_cast<const uint8_t*>(&value);
  data->insert(data->end(), p, p + sizeof value);
}
