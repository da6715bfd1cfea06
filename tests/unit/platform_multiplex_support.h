// Test support for service multiplex tests: a service made of a function, an echo service, a
// bind that must be accepted, and a fixture with a fresh multiplex on a private runtime directory.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/multiplex.h"
#include "platform_chn_support.h"
#include "posix/wire.h"

namespace muxtest {

using chntest::Bytes;
using chntest::Client;
using chntest::Frame;
using Libraries::Service::Multiplex;

// A service whose handle is a function.
using Handler = std::function<bool(const Ref<InMsg>&, const Ref<OutMsg>&, uint32_t*)>;
class FnService : public Object, public Interfaces::Service {
 public:
  explicit FnService(Handler h) : handler_(std::move(h)) {}
  bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret, uint64_t,
              Ref<Object>*) override {
    return handler_(in, out, ret);
  }
  bool isBound() override { return true; }
  uint32_t unbind(Ref<Object>) override { return 0; }
  Ref<String> name() override { return String::create("Fn"); }

 private:
  Handler handler_;
};

// Answers status tag*1000 + code, data = tag and the request's data.
inline Ref<FnService> echo(uint32_t tag) {
  return new FnService([tag](const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret) {
    out->write(&tag, sizeof tag);
    Bytes data(in->remaining());
    if (!data.empty()) out->write(data.data(), in->read(data.data(), data.size()));
    *ret = tag * 1000 + in->code();
    return true;
  });
}

// Binds `client` to `serviceId`: true when the bind is answered as accepted.
inline bool binds(Client& client, uint64_t serviceId, int timeoutMs = 5000) {
  Frame f;
  return client.send(Frame{PX_FRAME_BIND, 0, serviceId, {}}) && client.recvFrame(&f, timeoutMs) &&
         f.kind == PX_FRAME_REPLY && f.id == serviceId && f.code == 1u;
}

class MultiplexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static int serial = 0;
    name = "TestMux" + std::to_string(++serial);  // no thread of an earlier test has it
    mux = Multiplex::create(String::create(name.c_str()));
    ASSERT_TRUE(mux);
    path = chnPath(mux->channelId());
  }
  void TearDown() override {
    if (mux) mux->close();
    EXPECT_TRUE(!mux || mux->wait(5000));
  }

  chntest::RuntimeDirScope rt;
  std::string name;
  Ref<Multiplex> mux;
  std::string path;
};

}  // namespace muxtest
