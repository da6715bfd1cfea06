// The acceptor thread of a service multiplex: waits on the listening socket and the close
// event, and hands every accepted link to a thread of its own.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "multiplex_core.h"

namespace Libraries::Service {
namespace {

// A listener short of descriptors stays readable; it is looked at again after this long
// instead of being polled in a tight loop.
constexpr int kAcceptPauseMs = 100;

class LinkExec : public Object, public Exec {
 public:
  LinkExec(Ref<Multiplex::Core> core, Ref<ChnLink> link)
      : core_(std::move(core)), link_(std::move(link)) {}
  void run() override {
    Multiplex::Core::current() = core_.get();
    MuxLinkServe::run(*core_, link_);
    core_->forget(link_);
    link_.reset();
    core_->threadEnded();
  }

 private:
  Ref<Multiplex::Core> core_;
  Ref<ChnLink> link_;
};

class AcceptExec : public Object, public Exec {
 public:
  explicit AcceptExec(Ref<Multiplex::Core> core) : core_(std::move(core)) {}
  void run() override {
    Multiplex::Core::current() = core_.get();
    bool paused = false;
    while (!core_->isClosed()) {
      pollfd fds[2] = {{core_->wakeFd, POLLIN, 0}, {core_->listenFd, POLLIN, 0}};
      int n = ::poll(fds, paused ? 1 : 2, paused ? kAcceptPauseMs : -1);
      if (n < 0 && errno != EINTR) break;
      paused = false;
      if (n > 0 && (fds[1].revents & POLLIN)) paused = !acceptSome();
    }
    ::close(core_->listenFd);
    core_->listenFd = -1;
    core_->threadEnded();
  }

 private:
  // Accepts a bounded batch; false when the process is short of descriptors.
  bool acceptSome() {
    for (int i = 0; i < 32; ++i) {
      int fd = ::accept4(core_->listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        return !(errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM);
      }
      ucred peer{};
      socklen_t size = sizeof peer;
      uint64_t pid = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
      Ref<ChnLink> link = MuxLinkServe::make(fd, pid);
      // A closed or full multiplex refuses the link: the client sees it end at once.
      if (!core_->admit(link)) {
        link->shutdown();
        continue;
      }
      if (!core_->startThread(new LinkExec(core_, link))) {
        core_->forget(link);
        link->shutdown();
      }
    }
    return true;
  }

  Ref<Multiplex::Core> core_;
};

}  // namespace

Ref<Exec> makeAcceptor(const Ref<Multiplex::Core>& core) { return new AcceptExec(core); }

}  // namespace Libraries::Service
