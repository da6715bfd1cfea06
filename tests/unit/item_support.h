// Test support for opened items and their services: host files in a private directory, and
// requests handed to a service in-process with the reply it built.
#pragma once

#include <fcntl.h>

#include <fstream>
#include <string>

#include "platform/local_file.h"
#include "platform/service.h"
#include "platform_chn_support.h"

namespace itemtest {

using chntest::Bytes;

// A private directory for host files: the runtime directory scope's own, removed with it.
class TempDir : public chntest::RuntimeDirScope {
 public:
  std::string path(const std::string& name) const { return dir() + "/" + name; }
  // Makes `name` holding `content` and answers its path.
  std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
};

inline Ref<LocalFileDescriptionFSItem> openItem(const std::string& path, uint32_t flags,
                                                uint32_t mode = 0600) {
  return LocalFileDescriptionFSItem::open(String::create(path.c_str()), flags, mode);
}

inline Ref<InMsg> inMessage(uint32_t code, const Bytes& data = {}) {
  Bytes frame = chntest::encode(chntest::request(code, 1, data));
  return InMsg::decode(frame.data(), frame.size(), nullptr);
}

struct Answer {
  uint32_t ret = 0xDEAD;
  Bytes data;
};

// Hands one request to `service`.
inline Answer ask(Interfaces::Service& service, uint32_t code, const Bytes& data = {}) {
  Answer a;
  Ref<OutMsg> out = OutMsg::create();
  EXPECT_TRUE(service.handle(inMessage(code, data), out, &a.ret, 0, nullptr));
  a.data = out->data();
  return a;
}

}  // namespace itemtest
