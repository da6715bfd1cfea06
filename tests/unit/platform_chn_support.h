// Test support for channel tests: a private runtime directory, raw client links that speak the
// frame format byte by byte (independently of OutMsg/InMsg), a recording connection manager
// and a thread that serves a channel.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/chn.h"
#include "platform/runtime.h"

namespace chntest {

using Bytes = std::vector<uint8_t>;

// Threads of this process named `name` (platform threads carry their role's name). Read with
// read(2): a thread that ends between open and read makes the read fail, which a stream would
// turn into an exception.
inline int threadsNamed(const std::string& name) {
  int count = 0;
  std::error_code error;
  for (auto it = std::filesystem::directory_iterator("/proc/self/task", error);
       !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    int fd = ::open((it->path() / "comm").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    char text[32];
    ssize_t n = ::read(fd, text, sizeof text);
    ::close(fd);
    if (n > 0 && std::string(text, static_cast<size_t>(n)) == name + "\n") ++count;
  }
  return count;
}

// Sets (or with nullptr clears) one environment variable for the scope's life.
class EnvScope {
 public:
  EnvScope(const char* name, const char* value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (old) old_ = old;
    if (value) ::setenv(name, value, 1); else ::unsetenv(name);
  }
  ~EnvScope() {
    if (had_) ::setenv(name_.c_str(), old_.c_str(), 1); else ::unsetenv(name_.c_str());
  }

 private:
  std::string name_, old_;
  bool had_ = false;
};

// POSIX_RUNTIME_DIR points at a fresh directory under /tmp for the scope's life.
class RuntimeDirScope {
 public:
  RuntimeDirScope() : dir_(::mkdtemp(pattern_) ? pattern_ : ""), env_("POSIX_RUNTIME_DIR", dir_.c_str()) {}
  ~RuntimeDirScope() {
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }
  const std::string& dir() const { return dir_; }

 private:
  char pattern_[21] = "/tmp/ipc-test-XXXXXX";  // before dir_, which is made from it
  std::string dir_;
  EnvScope env_;
};

// Grows the vector first and then writes into it: GCC 12 at -O3 takes a push_back or insert
// into a vector that was empty for a write past the end (a false -Wstringop-overflow).
inline void putU32(Bytes& out, uint32_t v) {
  size_t at = out.size();
  out.resize(at + 4);
  for (size_t i = 0; i < 4; ++i) out[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
inline void putU64(Bytes& out, uint64_t v) {
  putU32(out, static_cast<uint32_t>(v));
  putU32(out, static_cast<uint32_t>(v >> 32));
}
inline uint32_t getU32(const uint8_t* p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}
inline uint64_t getU64(const uint8_t* p) {
  return getU32(p) | static_cast<uint64_t>(getU32(p + 4)) << 32;
}

// A frame without its typed blocks (a reply's blocks are checked for their length, then
// skipped).
struct Frame {
  uint32_t kind = 0;
  uint32_t code = 0;
  uint64_t id = 0;
  Bytes data;
};

inline Bytes encode(const Frame& f) {
  Bytes out;
  putU32(out, f.kind);
  putU32(out, f.code);
  putU64(out, f.id);
  putU32(out, static_cast<uint32_t>(f.data.size()));
  putU32(out, 0);
  out.insert(out.end(), f.data.begin(), f.data.end());
  return out;
}

// Parses a frame the way a client must; false on anything that does not add up exactly.
inline bool parse(const Bytes& raw, Frame* f) {
  if (raw.size() < 24) return false;
  f->kind = getU32(raw.data());
  f->code = getU32(raw.data() + 4);
  f->id = getU64(raw.data() + 8);
  uint64_t dataLen = getU32(raw.data() + 16), count = getU32(raw.data() + 20), pos = 24;
  if (dataLen > raw.size() - pos) return false;
  f->data.assign(raw.begin() + 24, raw.begin() + 24 + dataLen);
  for (pos += dataLen; count > 0; --count) {
    if (raw.size() - pos < 8 || getU32(raw.data() + pos + 4) > raw.size() - pos - 8) return false;
    pos += 8 + getU32(raw.data() + pos + 4);
  }
  return pos == raw.size();
}

inline Frame request(uint32_t code, uint64_t id, Bytes data = {}) {
  return Frame{1, code, id, std::move(data)};
}

// A raw client link.
class Client {
 public:
  explicit Client(const std::string& path) : fd_(chnConnect(path.c_str())) {}
  ~Client() { if (fd_ >= 0) ::close(fd_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool connected() const { return fd_ >= 0; }
  bool sendRaw(const Bytes& bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  bool send(const Frame& f) { return sendRaw(encode(f)); }
  // One datagram, or -1 on a time-out or error; 0 is the end of the link.
  ssize_t recvRaw(Bytes* out, int timeoutMs) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) != 1) return -1;
    out->resize(262144);
    ssize_t n = ::recv(fd_, out->data(), out->size(), MSG_DONTWAIT);
    out->resize(n > 0 ? static_cast<size_t>(n) : 0);
    return n;
  }
  bool recvFrame(Frame* f, int timeoutMs = 5000) {
    Bytes raw;
    return recvRaw(&raw, timeoutMs) > 0 && parse(raw, f);
  }
  // True when the server ended the link within the time (replies still unread are skipped).
  bool closedByPeer(int timeoutMs = 5000) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    Bytes raw(262144);
    while (std::chrono::steady_clock::now() < end) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 50) != 1) continue;
      ssize_t n = ::recv(fd_, raw.data(), raw.size(), MSG_DONTWAIT);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return true;
    }
    return false;
  }

 private:
  int fd_;
};

// Waits up to `ms` for `done`, checking every few milliseconds.
inline bool eventually(const std::function<bool()>& done, int ms = 5000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// Records every connect and disconnect.
class RecordingConMan : public Object, public ConMan {
 public:
  bool connect(const Ref<ChnLink>& link) override {
    std::lock_guard lock(mutex);
    connects.push_back(link);
    return true;
  }
  void disconnect(const Ref<ChnLink>& link) override {
    std::lock_guard lock(mutex);
    disconnects.push_back(link);
  }
  size_t connectCount() { std::lock_guard lock(mutex); return connects.size(); }
  size_t disconnectCount() { std::lock_guard lock(mutex); return disconnects.size(); }
  bool wasDisconnected(const Ref<ChnLink>& link) {
    std::lock_guard lock(mutex);
    for (auto& l : disconnects) if (l.get() == link.get()) return true;
    return false;
  }

  std::mutex mutex;
  std::vector<Ref<ChnLink>> connects;     // guarded by mutex
  std::vector<Ref<ChnLink>> disconnects;  // guarded by mutex
};

// Runs receive() on a thread of its own and queues the requests.
class Server {
 public:
  explicit Server(Ref<Chn> chn) : chn_(std::move(chn)), thread_([this] { run(); }) {}
  ~Server() {
    chn_->close();
    thread_.join();
  }
  Ref<InMsg> next(int timeoutMs = 5000) {
    std::unique_lock lock(mutex_);
    cond_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return !queue_.empty(); });
    if (queue_.empty()) return nullptr;
    Ref<InMsg> msg = queue_.front();
    queue_.pop_front();
    return msg;
  }

 private:
  void run() {
    while (Ref<InMsg> msg = chn_->receive()) {
      std::lock_guard lock(mutex_);
      queue_.push_back(msg);
      cond_.notify_all();
    }
  }
  Ref<Chn> chn_;
  std::mutex mutex_;
  std::condition_variable cond_;
  std::deque<Ref<InMsg>> queue_;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace chntest
