// A raw link to "posix.service" for tests that send frames the library never would.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "posix/nodes.h"

struct RawReply {
  uint32_t kind = 0;
  uint32_t code = 0;
  uint64_t id = 0;
  std::vector<uint8_t> data;
};

void putU32(std::vector<uint8_t>& b, uint32_t v);
void putU64(std::vector<uint8_t>& b, uint64_t v);
void putString(std::vector<uint8_t>& b, const std::string& s);
// A frame header; `dataLen` and `blocks` as the header claims them, whatever follows.
std::vector<uint8_t> frameHeader(uint32_t kind, uint32_t code, uint64_t id, uint32_t dataLen = 0,
                                 uint32_t blocks = 0);
// The data of a kill or group kill: `target` (a pid, a group or a selector), `signum` and an
// empty signal record.
std::vector<uint8_t> signalRequest(uint64_t target, uint32_t signum);
// The data of a stream read of at most `max` bytes, and of a stream write of `bytes`, each
// waiting up to `timeoutMs` (all ones: for ever).
std::vector<uint8_t> streamRead(uint64_t max, uint32_t timeoutMs);
std::vector<uint8_t> streamWrite(uint32_t timeoutMs, const std::string& bytes);
// A request frame: header, `data`, no blocks.
std::vector<uint8_t> requestFrame(uint32_t code, uint64_t id,
                                  const std::vector<uint8_t>& data = {});
// Appends the entries of the node record at `*at` in `data` to `out` and moves `*at` past it;
// false when the record runs past the end.
bool takeNode(const std::vector<uint8_t>& data, size_t* at, std::vector<px_node_entry>* out);

class RawLink {
 public:
  explicit RawLink(const std::string& socketPath);
  ~RawLink();
  RawLink(const RawLink&) = delete;
  RawLink& operator=(const RawLink&) = delete;

  bool connected() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  // One datagram; false with errno on failure (EAGAIN with dontWait when the socket is full).
  bool send(const std::vector<uint8_t>& frame, bool dontWait = false);
  // 1: a reply was read; 0: the server closed the link; -1: nothing within `timeoutMs`.
  int receive(RawReply* out, int timeoutMs);
  // Sends a request and reads replies until the one with its id; false on close or time-out.
  bool roundTrip(uint32_t code, uint64_t id, const std::vector<uint8_t>& data, RawReply* out,
                 int timeoutMs = 5000);
  // Reads (and drops) replies until the server closes the link; false after `timeoutMs`.
  bool closedByServer(int timeoutMs);

 private:
  int fd_ = -1;
};
