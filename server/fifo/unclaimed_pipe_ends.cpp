#include "fifo/unclaimed_pipe_ends.h"

#include <algorithm>

#include "platform/host_files.h"

size_t UnclaimedPipeEnds::maxEnds(uint64_t limit) {
  return static_cast<size_t>(std::clamp<uint64_t>(limit / 64, 8, 128));
}

bool UnclaimedPipeEnds::admit(size_t count) {
  MonLock lock(monitor_);
  std::erase_if(ends_, [](const Ref<AutocloseSvcMultiplex>& end) {
    return end->claimed() || !end->isOpen();
  });
  return ends_.size() + count <= maxEnds(HostFiles::limit());
}

void UnclaimedPipeEnds::add(Ref<AutocloseSvcMultiplex> end) {
  if (!end) return;
  MonLock lock(monitor_);
  ends_.push_back(std::move(end));
}

void UnclaimedPipeEnds::closeAll() {
  std::vector<Ref<AutocloseSvcMultiplex>> ends;
  {
    MonLock lock(monitor_);
    ends.swap(ends_);
  }
  for (const Ref<AutocloseSvcMultiplex>& end : ends) end->closeUnclaimed();
}

size_t UnclaimedPipeEnds::waiting() {
  MonLock lock(monitor_);
  return ends_.size();
}
