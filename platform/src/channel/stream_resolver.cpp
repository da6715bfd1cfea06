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
#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "platform/error.h"
#include "platform/multiplex.h"
#include "platform/nodes.h"
#include "posix/nodes.h"
#include "posix/wire.h"

namespace Services::Nodes::Resolvers {

namespace {

using Clock = std::chrono::steady_clock;

// How long a parked request waits at most before it is tried again.
constexpr uint32_t kLookAgainMs = 1000;

// What read() answers when it has sent the reply itself; no result code has this value.
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

// A read's reply frame: the frame header, then room for up to `size` bytes that the stream
// fills in place. Laid out as OutMsg::encode lays out a reply without blocks. The memory is the
// serving thread's own, made once: a link's thread serves one read at a time, and a frame
// that cannot go out at once is copied by the link.
class ReadReply {
 public:
  explicit ReadReply(uint64_t size) : frame_(threadFrame()), size_(size) {}

  Interfaces::MemDesc room() { return Interfaces::MemDesc::direct(bytes(), size_); }
  uint8_t* bytes() { return frame_ + PX_FRAME_HEADER_SIZE; }

  // The finished frame: status 1, the request's id and the `n` bytes read; its size in *size.
  const uint8_t* finish(uint64_t id, uint64_t n, size_t* size) {
    uint8_t* h = frame_;
    putU32(h, PX_FRAME_REPLY);
    putU32(h + 4, PX_RESULT_DONE);
    for (int i = 0; i < 8; ++i) h[8 + i] = static_cast<uint8_t>(id >> (8 * i));
    putU32(h + 16, static_cast<uint32_t>(n));
    putU32(h + 20, 0);
    *size = PX_FRAME_HEADER_SIZE + n;
    return frame_;
  }

 private:
  static uint8_t* threadFrame() {
    // Not zero-filled: only bytes the stream wrote are sent.
    thread_local std::unique_ptr<uint8_t[]> frame(
        new uint8_t[PX_FRAME_HEADER_SIZE + PX_STREAM_MAX_READ]);
    return frame.get();
  }
  static void putU32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
  }
  uint8_t* const frame_;
  const uint64_t size_;
};

// A read or write of a waiting stream that parks while the stream waits. attempt() runs first on
// the handler's thread, then, each time the parked request is resumed, on a pool thread that
// serves the request's link; it answers the request, or parks it again.
class ParkedCall : public Object, public Libraries::Service::Multiplex::Parked {
 public:
  ParkedCall(Ref<Interfaces::Stream> stream, Interfaces::WaitingStream* waiting, Ref<InMsg> in,
             uint32_t timeoutMs, uint64_t size, std::vector<uint8_t> bytes, bool writing)
      : stream_(std::move(stream)), waiting_(waiting), in_(std::move(in)),
        forever_(timeoutMs == kForever),
        deadline_(Clock::now() + std::chrono::milliseconds(forever_ ? 0 : timeoutMs)),
        size_(size), bytes_(std::move(bytes)), writing_(writing) {}

  // A write's first try answers through `out` when it need not wait (true); every other
  // answer goes out on the link.
  bool attempt(const Ref<OutMsg>& out = nullptr) {
    waiting_->endWait(&wait_);  // counted out of the word the last try waited on, if any
    if (writing_) {
      const uint64_t left = bytes_.size() - done_;
      uint64_t n = waiting_->writeOrWait(Interfaces::MemDesc::direct(bytes_.data() + done_, left), left, &wait_);
      done_ += n < left ? n : left;
      if (!wait_.armed || done_ == bytes_.size()) return answerWrite(out);
    } else {
      ReadReply reply(size_);
      uint64_t n = waiting_->readOrWait(reply.room(), size_, &wait_);
      if (n > 0 || !wait_.armed) return answerRead(reply, n);
    }
    // The stream would wait: park, unless the time is up or the client has gone.
    const auto now = Clock::now();
    const Ref<ChnLink>& link = in_->link();
    if ((!forever_ && now >= deadline_) || (link && link->peerGone()) ||
        !Libraries::Service::Multiplex::canPark()) {
      waiting_->endWait(&wait_);
      return last(out);
    }
    // Looked at again once a second at least: the word's waiter count lies in a page that
    // clients write, and one that breaks its rules could keep a writer from calling the wake.
    const uint32_t lookMs = std::min(wait_.lookAgainMs, kLookAgainMs);
    const auto wakeAt = forever_ ? now + std::chrono::milliseconds(lookMs)
                                 : std::min(deadline_, now + std::chrono::milliseconds(lookMs));
    Libraries::Service::Multiplex::park(this, wait_.word, wait_.seen, wakeAt);
    return false;
  }

  void resume() override { attempt(); }

 private:
  // The time is up or the client has gone: one call with no time at all, as at the end of a
  // slice, so that the stream notes the outcome.
  bool last(const Ref<OutMsg>& out) {
    if (writing_) {
      const uint64_t left = bytes_.size() - done_;
      uint64_t n = stream_->write(Interfaces::MemDesc::direct(bytes_.data() + done_, left), left, 0);
      done_ += n < left ? n : left;
      return answerWrite(out);
    }
    ReadReply reply(size_);
    return answerRead(reply, stream_->read(reply.room(), size_, 0));
  }

  bool answerRead(ReadReply& reply, uint64_t n) {
    if (n > size_) n = size_;  // a stream must not claim more than it was given room for
    size_t frameSize = 0;
    const uint8_t* frame = reply.finish(in_->id(), n, &frameSize);
    in_->link()->sendFrame(frame, frameSize);
    return false;
  }

  bool answerWrite(const Ref<OutMsg>& out) {
    uint8_t count[8];
    for (int i = 0; i < 8; ++i) count[i] = static_cast<uint8_t>(done_ >> (8 * i));
    if (out) {
      out->write(count, sizeof count);
      return true;
    }
    Ref<OutMsg> reply = OutMsg::create();
    reply->write(count, sizeof count);
    reply->setCode(PX_RESULT_DONE);
    in_->reply(reply);
    return false;
  }

  const Ref<Interfaces::Stream> stream_;  // keeps the waiting stream, and its words, alive
  Interfaces::WaitingStream* const waiting_;
  const Ref<InMsg> in_;
  const bool forever_;
  const Clock::time_point deadline_;
  const uint64_t size_;
  const std::vector<uint8_t> bytes_;
  const bool writing_;
  Interfaces::StreamWait wait_;  // the stream's wait, kept between tries
  uint64_t done_ = 0;            // bytes written so far
};

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
    Ref<ParkedCall>(new ParkedCall(stream_, waiting_, in, timeoutMs, size, {}, false))->attempt();
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
    Ref<ParkedCall> call = new ParkedCall(stream_, waiting_, in, timeoutMs, 0, std::move(bytes), true);
    return call->attempt(out) ? PX_RESULT_DONE : kAnswered;
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
