// The stream resolver: serves one byte stream over a multiplex. Read and write requests become
// calls of the stream with direct memory.
//
// A request may ask to wait for ever, and the stream may block for as long as it is told. So
// the resolver never hands the stream the client's whole time-out: it calls it in slices and,
// between slices, asks whether the client is still there. A call that answers before its slice
// is used up has its answer (data, end of file, broken pipe) and is not repeated; only a call
// that ran out its slice counts as a time-out and is tried again while time is left. A request
// that may wait says so (Multiplex::Waiting), so that other links are served meanwhile.
//
// A stream that can hand its waits out (Interfaces::WaitingStream) holds no thread at all
// while its request waits: the resolver moves what it can at once and, when the stream would
// wait, parks the request on the stream's word (Multiplex::park) until the word moves, the
// request's time is up, or the link has an event, and then tries again. Each try first asks
// whether the client is still there; the last one, when the time is up, is a call of the
// stream with no time at all, so the stream notes the time-out as it would have at the end of
// a slice.
//
// A read is answered with a reply frame that the resolver builds itself around the room for
// the bytes, so that the stream reads straight into the frame that goes to the socket: a 64 KiB
// read costs the stream's one read and the send, and no copy of the data in between.
#include <cerrno>
#include <chrono>
#include <memory>
#include <vector>

#include "platform/error.h"
#include "platform/multiplex.h"
#include "platform/nodes.h"
#include "posix/nodes.h"
#include "posix/wire.h"
#include "stream_resolver_parts.h"

namespace Services::Nodes::Resolvers {

namespace {

using Clock = std::chrono::steady_clock;

// What read() and write() answer when the reply has gone out, or will, without the multiplex.
constexpr uint32_t kAnswered = 0xFFFFFFFFu;

class Slices {
 public:
  Slices(uint32_t timeoutMs, Ref<ChnLink> link)
      : forever_(timeoutMs == kForever),
        deadline_(Clock::now() + std::chrono::milliseconds(forever_ ? 0 : timeoutMs)),
        link_(std::move(link)) {}

  // The time-out of the next call: what is left of the request's time, at most one slice.
  uint32_t next() {
    start_ = Clock::now();
    slice_ = Stream::kSliceMs;
    if (!forever_) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - start_).count();
      if (left < 0) left = 0;
      if (left < slice_) slice_ = static_cast<uint32_t>(left);
    }
    return slice_;
  }

  // After a call that did not finish the request: true when it should be made again. That is
  // when it ran out its slice (a call that took less answered for a reason of its own; three
  // quarters allow for clocks that wake a little early), time is left, and the client is
  // still there.
  bool again() const {
    auto now = Clock::now();
    auto used = std::chrono::duration_cast<std::chrono::milliseconds>(now - start_).count();
    if (used * 4 < static_cast<int64_t>(slice_) * 3) return false;
    if (!forever_ && now >= deadline_) return false;
    return !(link_ && link_->peerGone());
  }

 private:
  const bool forever_;
  const Clock::time_point deadline_;
  const Ref<ChnLink> link_;
  Clock::time_point start_;
  uint32_t slice_ = 0;
};

// A little-endian value of the request; false when the request is too short.
template <class T>
bool take(const Ref<InMsg>& in, T* value) {
  uint8_t bytes[sizeof(T)];
  if (in->read(bytes, sizeof bytes) != sizeof bytes) return false;
  T v = 0;
  for (size_t i = sizeof bytes; i-- > 0;) v = static_cast<T>(v << 8 | bytes[i]);
  *value = v;
  return true;
}

}  // namespace

Ref<Stream> Stream::create(Ref<Interfaces::Stream> stream, Ref<Object> resolver, uint64_t value) {
  if (!stream) {
    Error::set(EINVAL);
    return nullptr;
  }
  return new Stream(std::move(stream), std::move(resolver), value);
}

Ref<String> Stream::name() { return String::create("StreamResolver"); }

bool Stream::handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret,
                    uint64_t /*value*/, Ref<Object>* /*extra*/) {
  if (!in || !out || !ret) return true;
  switch (in->code()) {
    case PX_STREAM_READ:
      *ret = read(in, out);
      // The reply has gone out already; answering false keeps the multiplex from sending another.
      if (*ret == kAnswered) return false;
      break;
    case PX_STREAM_WRITE:
      *ret = write(in, out);
      if (*ret == kAnswered) return false;
      break;
    default:
      *ret = PX_RESULT_FAILED;
      break;
  }
  return true;
}

uint32_t Stream::read(const Ref<InMsg>& in, const Ref<OutMsg>& out) {
  uint64_t maxBytes = 0;
  uint32_t timeoutMs = 0;
  if (!take(in, &maxBytes) || !take(in, &timeoutMs)) return PX_RESULT_SHORT_REQUEST;
  const uint64_t size = maxBytes < PX_STREAM_MAX_READ ? maxBytes : PX_STREAM_MAX_READ;
  // A request that may wait, of a link served by the pool: it waits without a thread.
  if (waiting_ && timeoutMs != 0 && in->link() && Libraries::Service::Multiplex::canPark()) {
    serveParked(stream_, waiting_, in, timeoutMs, size, {}, nullptr);
    return kAnswered;
  }
  ReadReply reply(size);
  Slices slices(timeoutMs, in->link());
  // Even a call that may not wait for bytes waits for a client's copy in the shared page.
  Libraries::Service::Multiplex::Waiting waiting;
  uint64_t n = 0;
  do {
    uint32_t slice = slices.next();
    n = stream_->read(reply.room(), size, slice);
  } while (n == 0 && slices.again());
  if (n > size) n = size;  // a stream must not claim more than it was given room for
  if (const Ref<ChnLink>& link = in->link()) {
    // The frame goes out as InMsg::reply would send it; a link that has gone drops it alike.
    size_t frameSize = 0;
    const uint8_t* frame = reply.finish(in->id(), n, &frameSize);
    link->sendFrame(frame, frameSize);
    return kAnswered;
  }
  // A request that came without a link (a test handing one in) is answered through `out`.
  if (n && out->write(reply.bytes(), n) != n) return PX_RESULT_REPLY_UNWRITTEN;
  return PX_RESULT_DONE;
}

uint32_t Stream::write(const Ref<InMsg>& in, const Ref<OutMsg>& out) {
  uint32_t timeoutMs = 0;
  if (!take(in, &timeoutMs)) return PX_RESULT_SHORT_REQUEST;
  std::vector<uint8_t> bytes(in->remaining());
  if (!bytes.empty()) in->read(bytes.data(), bytes.size());
  if (waiting_ && timeoutMs != 0 && in->link() && Libraries::Service::Multiplex::canPark()) {
    return serveParked(stream_, waiting_, in, timeoutMs, 0, &bytes, out) ? PX_RESULT_DONE : kAnswered;
  }
  const uint64_t size = bytes.size();
  Slices slices(timeoutMs, in->link());
  Libraries::Service::Multiplex::Waiting waiting;
  uint64_t done = 0;
  do {
    // A write of nothing still reaches the stream once, so that its owner notes the outcome.
    uint32_t slice = slices.next();
    uint64_t left = size - done;
    uint64_t n = stream_->write(Interfaces::MemDesc::direct(bytes.data() + done, left), left, slice);
    done += n < left ? n : left;
  } while (done < size && slices.again());
  uint8_t count[8];
  for (int i = 0; i < 8; ++i) count[i] = static_cast<uint8_t>(done >> (8 * i));
  if (out->write(count, sizeof count) != sizeof count) return PX_RESULT_REPLY_UNWRITTEN;
  return PX_RESULT_DONE;
}

}  // namespace Services::Nodes::Resolvers
