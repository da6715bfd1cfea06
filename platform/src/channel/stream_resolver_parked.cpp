// Stream requests that wait without a thread. A read or write of a stream that hands its waits
// out (Interfaces::WaitingStream) moves what it can at once; when the stream would wait, the
// request is parked on the stream's word (Multiplex::park) until the word moves, its time is up,
// or its link has an event, and is then tried again on a pool thread that serves its link. Each
// try that would wait first asks whether the client is still there; the last one, once the time
// is up or the client has gone, is a call of the stream with no time at all, so that the stream
// notes the time-out (or the outcome) as it would at the end of a slice.
#include <algorithm>
#include <chrono>

#include "platform/multiplex.h"
#include "platform/sync.h"
#include "stream_resolver_parts.h"

namespace Services::Nodes::Resolvers {

namespace {

using Clock = std::chrono::steady_clock;
using Libraries::Service::Multiplex;

// How long a parked request waits at most before it is tried again.
constexpr uint32_t kLookAgainMs = 1000;

// A read or write of a waiting stream that parks while the stream waits. attempt() runs first on
// the handler's thread, then, each time the parked request is resumed, on a pool thread that
// serves the request's link; it answers the request, or parks it again.
class ParkedCall : public Object, public Multiplex::Parked {
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
        !Multiplex::canPark()) {
      waiting_->endWait(&wait_);
      return last(out);
    }
    // Looked at again once a second at least: the word's waiter count lies in a page that
    // clients write, and one that breaks its rules could keep a writer from calling the wake.
    const uint32_t lookMs = std::min(wait_.lookAgainMs, kLookAgainMs);
    const auto wakeAt = forever_ ? now + std::chrono::milliseconds(lookMs)
                                 : std::min(deadline_, now + std::chrono::milliseconds(lookMs));
    Multiplex::park(this, wait_.word, wait_.seen, wakeAt);
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

bool serveParked(const Ref<Interfaces::Stream>& stream, Interfaces::WaitingStream* waiting,
                 const Ref<InMsg>& in, uint32_t timeoutMs, uint64_t size,
                 std::vector<uint8_t>* bytes, const Ref<OutMsg>& out) {
  const bool writing = bytes != nullptr;
  Ref<ParkedCall> call = new ParkedCall(stream, waiting, in, timeoutMs, size,
                                        writing ? std::move(*bytes) : std::vector<uint8_t>{}, writing);
  return call->attempt(writing ? out : nullptr);
}

}  // namespace Services::Nodes::Resolvers
