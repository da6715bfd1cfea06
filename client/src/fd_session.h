// The process's descriptor table as this process knows it, and the calls that reach it.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "description.h"
#include "frame.h"

namespace pxc {

// The process's descriptor table as this process knows it: for each number the description
// behind it, or null for a number that is taken without one (a reserved number). Loaded with
// the descriptor service's GetTable on first use, so that a spawned child sees the numbers it
// inherited. A session holds the view's lock for its lifetime: requests that change the table
// and the matching local change happen as one step for the other threads.
class FdSession {
 public:
  FdSession();
  ~FdSession();
  FdSession(const FdSession&) = delete;
  FdSession& operator=(const FdSession&) = delete;

  // 0, or the errno value that kept the view from loading.
  int error() const { return err_; }
  // One request to the descriptor service; a broken link drops the whole view (the server has
  // gone, and its descriptions with it). With `file`, a host descriptor that came with the
  // reply (else -1).
  int request(FrameWriter& req, Reply* out, int* file = nullptr);
  // Sends a request whose reply nobody needs (a close of a number the view knows), without
  // waiting: the next request on the link skips its reply, and settle() waits for it. False
  // when kMaxPosted replies are outstanding already (or the view is broken): the caller then
  // makes it a request.
  bool post(FrameWriter& req);
  // Waits until the server has answered every posted request. 0 or an errno value.
  int settle();
  // Requests posted and not answered at most.
  static constexpr uint32_t kMaxPosted = 8;
  // The description of `fd`; *known tells a reserved number from a number not in the view.
  std::shared_ptr<Description> get(int fd, bool* known) const;
  void set(int fd, std::shared_ptr<Description> d);
  void erase(int fd);
  // The local description with the same node, or a new one.
  std::shared_ptr<Description> adopt(int32_t type, NodeRecord node);
  // Every number in the view, ascending, with its description.
  std::vector<std::pair<int, std::shared_ptr<Description>>> all() const;

 private:
  int err_ = 0;
};

// The description behind `fd` for a read or write: 0, or EBADF (or the error of loading).
int lookupFd(int fd, std::shared_ptr<Description>* out);
// Whether `fd` still names `d` for a server that is still there: a call that found a
// description whose services have closed tells the server's end from the description's.
bool stillNamed(int fd, const Description* d);

// Drops the local descriptor view (after a fork, or for a new instance): the next call fetches
// the table again. Closes that were posted are settled first.
void resetFds();
// Waits until the server has served the descriptor closes this process posted, so that no
// other request overtakes them (a spawn must not copy a descriptor that was closed before
// it). Cheap when none are outstanding; called before every request to the process service.
void settleFds();

}  // namespace pxc
