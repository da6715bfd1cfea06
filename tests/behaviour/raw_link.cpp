// Raw frames over AF_UNIX SOCK_SEQPACKET, as described in docs/protocol.md.
#include "raw_link.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "posix/posix_service.h"
#include "posix/wire.h"
#include "server_fixture.h"

void putU32(std::vector<uint8_t>& b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void putU64(std::vector<uint8_t>& b, uint64_t v) {
  for (int i = 0; i < 8; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void putString(std::vector<uint8_t>& b, const std::string& s) {
  putU32(b, static_cast<uint32_t>(s.size()));
  b.insert(b.end(), s.begin(), s.end());
}

std::vector<uint8_t> frameHeader(uint32_t kind, uint32_t code, uint64_t id, uint32_t dataLen,
                                 uint32_t blocks) {
  std::vector<uint8_t> f;
  putU32(f, kind);
  putU32(f, code);
  putU64(f, id);
  putU32(f, dataLen);
  putU32(f, blocks);
  return f;
}

bool takeNode(const std::vector<uint8_t>& data, size_t* at, std::vector<px_node_entry>* out) {
  uint32_t count = 0;
  if (*at + PX_NODE_COUNT_SIZE > data.size()) return false;
  std::memcpy(&count, &data[*at], sizeof count);
  if ((data.size() - *at - PX_NODE_COUNT_SIZE) / PX_NODE_ENTRY_SIZE < count) return false;
  *at += PX_NODE_COUNT_SIZE;
  for (uint32_t i = 0; i < count; ++i, *at += PX_NODE_ENTRY_SIZE) {
    px_node_entry e;
    std::memcpy(&e, &data[*at], sizeof e);
    out->push_back(e);
  }
  return true;
}

std::vector<uint8_t> signalRequest(uint64_t target, uint32_t signum) {
  std::vector<uint8_t> data;
  putU64(data, target);
  putU32(data, signum);
  data.resize(data.size() + PX_SIGNAL_INFO_SIZE);
  return data;
}

std::vector<uint8_t> streamRead(uint64_t max, uint32_t timeoutMs) {
  std::vector<uint8_t> data;
  putU64(data, max);
  putU32(data, timeoutMs);
  return data;
}

std::vector<uint8_t> streamWrite(uint32_t timeoutMs, const std::string& bytes) {
  std::vector<uint8_t> data(sizeof timeoutMs + bytes.size());
  std::memcpy(data.data(), &timeoutMs, sizeof timeoutMs);  // little-endian host
  if (!bytes.empty()) std::memcpy(data.data() + sizeof timeoutMs, bytes.data(), bytes.size());
  return data;
}

std::vector<uint8_t> requestFrame(uint32_t code, uint64_t id, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> f =
      frameHeader(PX_FRAME_REQUEST, code, id, static_cast<uint32_t>(data.size()));
  f.insert(f.end(), data.begin(), data.end());
  return f;
}

namespace {

uint64_t le(const uint8_t* p, int n) {
  uint64_t v = 0;
  for (int i = 0; i < n; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
  return v;
}

}  // namespace

RawLink::RawLink(const std::string& socketPath) {
  struct sockaddr_un addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof addr.sun_path) return;
  std::memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  // Room for one datagram beyond the largest frame.
  int size = 1 << 20;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return;
  }
  fd_ = fd;
}

RawLink::~RawLink() {
  if (fd_ >= 0) close(fd_);
}

bool RawLink::send(const std::vector<uint8_t>& frame, bool dontWait) {
  int flags = MSG_NOSIGNAL | (dontWait ? MSG_DONTWAIT : 0);
  return ::send(fd_, frame.data(), frame.size(), flags) == static_cast<ssize_t>(frame.size());
}

int RawLink::receive(RawReply* out, int timeoutMs) {
  struct pollfd pfd = {fd_, POLLIN, 0};
  if (poll(&pfd, 1, timeoutMs) <= 0) return -1;
  std::vector<uint8_t> buf(PX_WIRE_MAX_FRAME);
  ssize_t n = recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT);
  if (n < 0 && errno == EAGAIN) return -1;
  if (n <= 0) return 0;
  if (n < static_cast<ssize_t>(PX_FRAME_HEADER_SIZE)) return 0;
  out->kind = static_cast<uint32_t>(le(&buf[0], 4));
  out->code = static_cast<uint32_t>(le(&buf[4], 4));
  out->id = le(&buf[8], 8);
  uint32_t dataLen = static_cast<uint32_t>(le(&buf[16], 4));
  size_t end = std::min<size_t>(PX_FRAME_HEADER_SIZE + dataLen, static_cast<size_t>(n));
  out->data.assign(buf.begin() + PX_FRAME_HEADER_SIZE, buf.begin() + static_cast<long>(end));
  return 1;
}

bool RawLink::roundTrip(uint32_t code, uint64_t id, const std::vector<uint8_t>& data,
                        RawReply* out, int timeoutMs) {
  if (!send(requestFrame(code, id, data))) return false;
  int64_t deadline = monotonicMs() + timeoutMs;
  for (;;) {
    int64_t left = deadline - monotonicMs();
    if (left <= 0 || receive(out, static_cast<int>(left)) != 1) return false;
    if (out->id == id) return true;
  }
}

bool RawLink::closedByServer(int timeoutMs) {
  RawReply ignored;
  int r = 1;
  int64_t deadline = monotonicMs() + timeoutMs;
  while (r == 1) {
    r = receive(&ignored, static_cast<int>(std::max<int64_t>(deadline - monotonicMs(), 0)));
  }
  return r == 0;
}
