// The node service's pieces on the serving side: a provider hands a node to a client (it writes
// the node's record into a message), and the stream resolver serves a byte stream to the
// clients that reach it through a node entry. Record layout and resolver protocol:
// posix/nodes.h.
#pragma once

#include <cstdint>

#include "platform/chn.h"
#include "platform/devnode.h"
#include "platform/object.h"
#include "platform/service.h"
#include "platform/stream.h"
#include "platform/sync.h"

namespace Services::Nodes {

class Provider : public Object {
 public:
  // Null (Error set) when `node` is null. `value` is kept and not used by the hosted platform.
  static Ref<Provider> create(Ref<DeviceNode> node, uint64_t value);

  // Writes the node's record (u32 entry count, then six u64 per entry) into `out`; false when
  // the stream did not take all of it. Written with one stream call, so a reply either holds
  // the whole record or none of it.
  bool serialize(const Ref<Interfaces::Stream>& out, uint32_t timeoutMs = kForever) const;

  const Ref<DeviceNode>& node() const { return node_; }
  uint64_t value() const { return value_; }

 private:
  Provider(Ref<DeviceNode> node, uint64_t value) : node_(std::move(node)), value_(value) {}
  const Ref<DeviceNode> node_;
  const uint64_t value_;
};

namespace Resolvers {

// Serves one stream: read and write requests (posix/nodes.h) become calls of the stream, with
// direct memory. It is its own connection manager and accepts every link.
//
// A request waits in slices of at most kSliceMs: between slices it asks whether the client is
// still there (ChnLink::peerGone), so that a client that hangs up, or a multiplex that closes,
// frees the link's thread within one slice even when the request asked to wait for ever. A
// stream that is also an Interfaces::WaitingStream has its waits parked instead (no thread
// waits; see Multiplex::park): such a request is tried again when the stream's word moves, its
// time is up, or its link has an event, and ends with the link.
class Stream : public Object, public Interfaces::Service, public ConMan {
 public:
  static constexpr uint32_t kSliceMs = 100;

  // Null (Error set) when `stream` is null. `resolver` and `value` are kept and not used by the
  // hosted platform.
  static Ref<Stream> create(Ref<Interfaces::Stream> stream, Ref<Object> resolver, uint64_t value);

  bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret, uint64_t value,
              Ref<Object>* extra) override;
  bool isBound() override { return stream_.get() != nullptr; }
  uint32_t unbind(Ref<Object> /*binding*/) override { return 0; }
  Ref<String> name() override;

  bool connect(const Ref<ChnLink>& /*link*/) override { return true; }
  void disconnect(const Ref<ChnLink>& /*link*/) override {}

  const Ref<Object>& resolver() const { return resolver_; }
  uint64_t value() const { return value_; }

 private:
  Stream(Ref<Interfaces::Stream> stream, Ref<Object> resolver, uint64_t value)
      : stream_(std::move(stream)),
        waiting_(dynamic_cast<Interfaces::WaitingStream*>(stream_.get())),
        resolver_(std::move(resolver)),
        value_(value) {}
  uint32_t read(const Ref<InMsg>& in, const Ref<OutMsg>& out);
  uint32_t write(const Ref<InMsg>& in, const Ref<OutMsg>& out);

  const Ref<Interfaces::Stream> stream_;
  // The same stream when it can hand its waits out: its requests then wait without a thread.
  Interfaces::WaitingStream* const waiting_;
  const Ref<Object> resolver_;
  const uint64_t value_;
};

}  // namespace Resolvers
}  // namespace Services::Nodes
