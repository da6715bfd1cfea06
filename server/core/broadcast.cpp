#include "core/broadcast.h"

#include <posix/posix_service.h>
#include <posix/wire.h>

#include <algorithm>

#include "common/request_log.h"

const std::deque<Broadcast>* BroadcastQueue::waitingOf(const PosixProcess* sender) const {
  for (const Sender& s : senders_)
    if (s.process == sender) return &s.waiting;
  return nullptr;
}

bool BroadcastQueue::full(const Ref<PosixProcess>& sender) const {
  const std::deque<Broadcast>* waiting = waitingOf(sender.get());
  return waiting && waiting->size() >= kMaxPendingPerProcess;
}

bool BroadcastQueue::submit(Broadcast broadcast, uint32_t* result) {
  Sender* sender = nullptr;
  for (Sender& s : senders_)
    if (s.process == broadcast.sender.get()) sender = &s;
  const uint64_t size = broadcast.group ? broadcast.group->livingMembers() : broadcast.targets.size();
  if (!sender && size <= kSlice) {
    runSlice(broadcast);
    *result = BroadcastQueue::result(broadcast);
    return true;
  }
  if (!sender) {
    senders_.push_back({broadcast.sender.get(), {}});
    sender = &senders_.back();
  }
  sender->waiting.push_back(std::move(broadcast));
  return false;
}

void BroadcastQueue::runRound() {
  for (size_t i = 0; i < senders_.size();) {
    std::deque<Broadcast>& waiting = senders_[i].waiting;
    if (runSlice(waiting.front())) {
      Ref<OutMsg> answer = OutMsg::create();
      answer->setCode(result(waiting.front()));
      waiting.front().request->reply(answer);
      RequestLog::noteLate(PX_DIAG_PROCESS_SERVICE, waiting.front().request, answer->code());
      waiting.pop_front();
    }
    if (waiting.empty())
      senders_.erase(senders_.begin() + static_cast<std::ptrdiff_t>(i));
    else
      ++i;
  }
}

void BroadcastQueue::visit(Broadcast& b, const Ref<PosixProcess>& target) {
  // Every process: the targets were chosen by level already. A group: members the sender may
  // not control are skipped silently.
  if (b.everyProcess) {
    if (target->signal(b.sender, b.signum, &b.record, RecordPlacement::Data) == PX_RESULT_DONE)
      b.counted = true;
  } else if (target->mayControl(b.sender)) {
    target->signal(b.sender, b.signum, &b.record);
  }
}

bool BroadcastQueue::runSlice(Broadcast& b) {
  if (b.group) {
    for (const Ref<PosixProcess>& member : b.group->membersFrom(&b.from, b.before, kSlice))
      visit(b, member);
    return b.from >= b.before;
  }
  size_t end = std::min(b.targets.size(), b.next + kSlice);
  for (; b.next < end; ++b.next) {
    visit(b, b.targets[b.next]);
    b.targets[b.next].reset();  // visited: a record that has gone may go now
  }
  return b.next == b.targets.size();
}

uint32_t BroadcastQueue::result(const Broadcast& b) {
  if (!b.everyProcess) return PX_RESULT_DONE;
  return b.counted ? PX_RESULT_DONE : PX_RESULT_NOT_PERMITTED;
}
