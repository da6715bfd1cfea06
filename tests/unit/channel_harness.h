// An in-process channel with one raw client socket, so unit tests can hand real requests to the
// server's objects and read the replies those objects send.
#pragma once

#include <posix/wire.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/chn.h"

class ChannelHarness {
 public:
  struct Block {
    uint32_t kind;
    std::vector<uint8_t> bytes;
  };
  struct Reply {
    uint32_t kind = 0;
    uint32_t code = 0;
    uint64_t id = 0;
    std::vector<uint8_t> data;
    std::vector<Block> blocks;
  };

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
  std::string runtimeDir_;
  Ref<Chn> channel_;
  int client_ = -1;
  uint64_t nextId_ = 1;
};

// Appends a value's bytes to a request's data.
template <class T>
void put(std::vector<uint8_t>* data, const T& value) {
  auto* p = reinterpret_cast<const uint8_t*>(&value);
  data->insert(data->end(), p, p + sizeof value);
}
