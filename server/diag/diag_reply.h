// How the introspection service writes a list into a reply: whole records while they fit one
// frame, texts cut so that every record is small, and the place the next page starts.
#pragma once

#include <posix/diag_service.h>
#include <posix/wire.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "platform/message.h"
#include "platform/string.h"

namespace DiagReply {

using Bytes = std::vector<uint8_t>;

// Bytes of a text (a program's path and arguments, an item's path) a record carries at most;
// a longer one is cut and ends in "...". A record then takes at most about 1 KB, so one frame
// holds over a hundred of them whatever a client names.
constexpr size_t kMaxText = PX_DIAG_MAX_TEXT;
// Room for the records of one reply: the frame less its header, the count and the u64 that
// says where the next page starts.
constexpr size_t kRoom = PX_WIRE_MAX_FRAME - PX_FRAME_HEADER_SIZE - sizeof(uint32_t) - sizeof(uint64_t);

template <class T>
void put(Bytes& out, const T& value) {
  const auto* p = reinterpret_cast<const uint8_t*>(&value);
  out.insert(out.end(), p, p + sizeof value);
}

// A platform string (u32 length, the bytes), cut to kMaxText.
inline void putText(Bytes& out, const Ref<String>& text) {
  size_t length = text ? text->length() : 0;
  const bool cut = length > kMaxText;
  put(out, static_cast<uint32_t>(cut ? kMaxText : length));
  if (cut) length = kMaxText - 3;
  if (length) out.insert(out.end(), text->c_str(), text->c_str() + length);
  if (cut) out.insert(out.end(), {'.', '.', '.'});
}

// A pid list: u32 count, then the pids in ascending order, each once.
inline void putPids(Bytes& out, std::vector<uint64_t> pids) {
  std::sort(pids.begin(), pids.end());
  pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
  put(out, static_cast<uint32_t>(pids.size()));
  for (uint64_t pid : pids) put(out, pid);
}

// The records of one reply, collected while they fit.
class Records {
 public:
  // Adds the record `write` makes; false, adding nothing, when it would not fit.
  template <class Fn>
  bool add(Fn write) {
    Bytes record;
    write(record);
    if (body_.size() + record.size() > kRoom) return false;
    starts_.push_back(body_.size());
    body_.insert(body_.end(), record.begin(), record.end());
    return true;
  }
  size_t count() const { return starts_.size(); }
  // Drops the records from the `kept`-th on.
  void keep(size_t kept) {
    if (kept >= starts_.size()) return;
    body_.resize(starts_[kept]);
    starts_.resize(kept);
  }
  // Writes the count and the records; a paged list then `next`, where the next page starts
  // (0: this page ends the list).
  uint32_t send(const Ref<OutMsg>& reply) const {
    const auto count = static_cast<uint32_t>(starts_.size());
    reply->write(&count, sizeof count);
    if (!body_.empty()) reply->write(body_.data(), body_.size());
    return PX_RESULT_DONE;
  }
  uint32_t send(const Ref<OutMsg>& reply, uint64_t next) const {
    send(reply);
    reply->write(&next, sizeof next);
    return PX_RESULT_DONE;
  }

 private:
  Bytes body_;
  std::vector<size_t> starts_;  // where each record begins in body_
};

}  // namespace DiagReply
