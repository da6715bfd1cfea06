// Device nodes: a node lists the services through which a client reaches something, each entry
// six u64 values (interface type, channel id, service id, 0, access flags, 0). The device
// server publishes a node under a path: the file RT/dev/<path> holds the node record
// (u32 entry count, then the entries).
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "platform/object.h"
#include "platform/string.h"

struct NodeEntry {
  uint64_t type;
  uint64_t channel;
  uint64_t service;
  uint64_t reserved0;
  uint64_t access;
  uint64_t reserved1;
};

class DeviceNode : public Object {
 public:
  static Ref<DeviceNode> create();
  static Ref<DeviceNode> create(uint64_t type, uint64_t channel, uint64_t service,
                                uint64_t reserved0, uint64_t access, uint64_t reserved1);
  bool add(uint64_t type, uint64_t channel, uint64_t service, uint64_t reserved0,
           uint64_t access, uint64_t reserved1);
  std::vector<NodeEntry> entries() const;
  // The node record: u32 entry count, then six little-endian u64 per entry.
  std::vector<uint8_t> record() const;

 private:
  DeviceNode() = default;
  mutable std::mutex mutex_;
  std::vector<NodeEntry> entries_;  // guarded by mutex_
};

class DeviceServer : public Object {
 public:
  static Ref<DeviceServer> create();
  // Writes the node's record to RT/dev/<path> (directories made as needed); the file is
  // removed when the process shuts down.
  bool registerNode(const Ref<String>& path, const Ref<DeviceNode>& node);
  // "RT/dev/"
  static Ref<String> nodePrefix();

 private:
  DeviceServer() = default;
};

namespace Services::Filesystem::Client {

// A directory of the platform's file system; "/" is RT/root/.
class Directory : public Object {
 public:
  // Null when the directory does not exist.
  static Ref<Directory> open(const char* path, uint32_t flags);
  // Makes `name` in this directory lead to `target` (a symlink), replacing an old entry.
  bool bind(const Ref<String>& name, const Ref<String>& target);

 private:
  explicit Directory(Ref<String> hostPath) : hostPath_(std::move(hostPath)) {}
  Ref<String> hostPath_;
};

}  // namespace Services::Filesystem::Client
