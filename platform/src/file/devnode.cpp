// Device nodes and the device server: a node published under a path is a file below RT/dev/
// holding the node's record, so that any process of the instance can look it up.
#include "platform/devnode.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>

#include "platform/error.h"
#include "platform/runtime.h"

namespace {

std::atomic<uint64_t> g_tempSerial{0};  // keeps concurrent registrations off each other's temp files

void putU64(std::vector<uint8_t>& out, uint64_t value) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// An absolute path whose components stay below the root: no "..", no empty name.
bool validNodePath(const char* path) {
  if (!path || path[0] != '/' || path[1] == 0) return false;
  std::string p(path + 1);
  size_t start = 0;
  while (start <= p.size()) {
    size_t slash = p.find('/', start);
    if (slash == std::string::npos) slash = p.size();
    std::string part = p.substr(start, slash - start);
    if (part.empty() || part == "." || part == "..") return false;
    start = slash + 1;
  }
  return true;
}

bool writeAll(int fd, const std::vector<uint8_t>& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

Ref<DeviceNode> DeviceNode::create() { return new DeviceNode(); }

Ref<DeviceNode> DeviceNode::create(uint64_t type, uint64_t channel, uint64_t service,
                                   uint64_t reserved0, uint64_t access, uint64_t reserved1) {
  Ref<DeviceNode> node = new DeviceNode();
  node->add(type, channel, service, reserved0, access, reserved1);
  return node;
}

bool DeviceNode::add(uint64_t type, uint64_t channel, uint64_t service, uint64_t reserved0,
                     uint64_t access, uint64_t reserved1) {
  std::lock_guard lock(mutex_);
  if (entries_.size() >= 0xFFFFFFFFu) return false;
  entries_.push_back({type, channel, service, reserved0, access, reserved1});
  return true;
}

std::vector<NodeEntry> DeviceNode::entries() const {
  std::lock_guard lock(mutex_);
  return entries_;
}

std::vector<uint8_t> DeviceNode::record() const {
  std::lock_guard lock(mutex_);
  std::vector<uint8_t> out;
  out.reserve(4 + entries_.size() * 48);
  uint32_t count = static_cast<uint32_t>(entries_.size());
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(count >> (8 * i)));
  for (const NodeEntry& e : entries_) {
    putU64(out, e.type);
    putU64(out, e.channel);
    putU64(out, e.service);
    putU64(out, e.reserved0);
    putU64(out, e.access);
    putU64(out, e.reserved1);
  }
  return out;
}

Ref<DeviceServer> DeviceServer::create() { return new DeviceServer(); }

Ref<String> DeviceServer::nodePrefix() { return String::create((Runtime::dir() + "/dev/").c_str()); }

bool DeviceServer::registerNode(const Ref<String>& path, const Ref<DeviceNode>& node) {
  if (!path || !node || !validNodePath(path->c_str())) {
    Error::set(EINVAL);
    return false;
  }
  if (!Runtime::prepare(nullptr)) {
    Error::set(EACCES);
    return false;
  }
  std::string file = Runtime::path("dev") + path->c_str();
  // Directories on the way: RT/dev exists, everything below it is made here.
  size_t base = Runtime::path("dev").size() + 1;
  for (size_t slash = file.find('/', base); slash != std::string::npos;
       slash = file.find('/', slash + 1)) {
    if (::mkdir(file.substr(0, slash).c_str(), 0700) != 0 && errno != EEXIST) {
      Error::set(errno);
      return false;
    }
  }
  // Written aside and renamed, so a reader never sees half a record.
  std::string temp = file + ".tmp." + std::to_string(::getpid()) + "." +
                     std::to_string(g_tempSerial.fetch_add(1, std::memory_order_relaxed));
  int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    Error::set(errno);
    return false;
  }
  bool written = writeAll(fd, node->record());
  int saved = errno;
  if (::close(fd) != 0 && written) {
    written = false;
    saved = errno;
  }
  if (!written || ::rename(temp.c_str(), file.c_str()) != 0) {
    if (written) saved = errno;
    ::unlink(temp.c_str());
    Error::set(saved);
    return false;
  }
  Runtime::ownFile(file);
  return true;
}
