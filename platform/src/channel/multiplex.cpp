// The service multiplex's life: making its socket and handing it to the acceptor, adding
// services, closing and waiting for its links to end, and the one-at-a-time turn of its
// connection notifications.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "chn_impl.h"
#include "multiplex_core.h"
#include "platform/error.h"
#include "platform/runtime.h"
#include "file/host_fd.h"

namespace Libraries::Service {

Multiplex::Multiplex(Ref<String> name) : name_(std::move(name)) {}

Ref<Multiplex> Multiplex::create(Ref<String> name) {
  if (!name) name = String::create("Multiplex");
  if (!MuxPool::prepare()) {
    Error::set(errno);
    return nullptr;
  }
  Ref<Core> core = new Core();
  core->name = name;
  if (!MuxAcceptor::reuse(core)) {
    if (!Runtime::prepare(nullptr)) {
      Error::set(EACCES);
      return nullptr;
    }
    core->listenFd = chnListenAtFreshId(&core->id, &core->socketPath);
    if (core->listenFd < 0) {
      Error::set(errno);
      core->fileRemoved = true;  // nothing was made
      return nullptr;
    }
    if (!MuxAcceptor::watch(core)) {
      Error::set(errno);
      return nullptr;  // ~Core closes the socket and removes its file
    }
  }
  Ref<Multiplex> mux = new Multiplex(name);
  mux->core_ = core;
  return mux;
}

Multiplex::~Multiplex() {
  if (!core_) return;
  core_->close();
  std::vector<Core::Entry> services;
  {
    std::lock_guard lock(core_->mutex);
    services.swap(core_->services);
  }
  // Released here, outside the lock: a service's destructor may do anything.
  services.clear();
}

uint64_t Multiplex::add(Ref<Interfaces::Service> service, Ref<ConMan> conMan) {
  if (!service || !conMan) {
    Error::set(EINVAL);
    return 0;
  }
  std::lock_guard lock(core_->mutex);
  if (core_->closed) return 0;
  core_->services.push_back({std::move(service), std::move(conMan)});
  return core_->serviceBase + core_->services.size();
}

uint64_t Multiplex::channelId() const { return core_->id; }
const Ref<String>& Multiplex::name() const { return name_; }
void Multiplex::close() { core_->close(); }
bool Multiplex::wait(uint32_t timeoutMs) { return core_->wait(timeoutMs); }

bool Multiplex::reached() const {
  std::lock_guard lock(core_->mutex);
  return core_->reached;
}

Multiplex::Core*& Multiplex::Core::current() {
  thread_local Core* core = nullptr;
  return core;
}

Multiplex::Core::~Core() {
  HostFd::close(listenFd);
  removeFile();
}

void Multiplex::Core::serve(const Ref<ChnLink>& link) {
  if (MuxPool::serve(this, link)) return;
  forget(link);
  link->shutdown();
  linkEnded();  // admit() counted the link
}

void Multiplex::Core::linkEnded() {
  std::lock_guard lock(mutex);
  --running;
  changed.notify_all();
}

bool Multiplex::Core::admit(const Ref<ChnLink>& link) {
  std::lock_guard lock(mutex);
  if (closed || links.size() >= kMaxLinks) return false;
  links.push_back(link);
  ++running;
  reached = true;
  return true;
}

void Multiplex::Core::forget(const Ref<ChnLink>& link) {
  std::lock_guard lock(mutex);
  for (size_t i = 0; i < links.size(); ++i) {
    if (links[i].get() == link.get()) {
      links[i] = std::move(links.back());
      links.pop_back();
      return;
    }
  }
}

bool Multiplex::Core::lookup(uint64_t serviceId, Entry* entry) {
  std::lock_guard lock(mutex);
  if (serviceId <= serviceBase || serviceId - serviceBase > services.size()) return false;
  *entry = services[serviceId - serviceBase - 1];
  return true;
}

void Multiplex::Core::beginNotify() {
  const uint64_t self = Thd::current();
  std::unique_lock lock(mutex);
  auto free = [&] { return notifier == 0 || notifier == self; };
  if (!free()) {
    Waiting waiting;  // another link's notification runs: other links are served meanwhile
    changed.wait(lock, free);
  }
  notifier = self;
  ++notifyDepth;
}

void Multiplex::Core::endNotify() {
  std::lock_guard lock(mutex);
  if (notifyDepth == 0 || --notifyDepth > 0) return;
  notifier = 0;
  changed.notify_all();
}

void Multiplex::Core::removeFile() {
  {
    std::lock_guard lock(mutex);
    if (fileRemoved) return;
    fileRemoved = true;
  }
  ::unlink(socketPath.c_str());
  Runtime::disownFile(socketPath);
}

void Multiplex::Core::close() {
  std::vector<Ref<ChnLink>> open;
  uint64_t nextBase = 0;
  {
    std::lock_guard lock(mutex);
    if (closed) return;
    closed = true;
    open = links;
    nextBase = serviceBase + services.size();
  }
  // From here on no link is admitted: a connection that arrived meanwhile is refused by
  // admit(), and the socket either closes (ending those still waiting in its queue) or, kept
  // as a spare, ends every link that reaches it.
  if (MuxAcceptor::unwatch(*this, nextBase)) {
    std::lock_guard lock(mutex);
    fileRemoved = true;  // the file is the spare's now
  } else {
    removeFile();
  }
  // Each link's next turn finds its socket shut down and ends the link; a handler that waits
  // in slices sees ChnLink::peerGone().
  for (const Ref<ChnLink>& link : open) link->shutdown();
}

bool Multiplex::Core::wait(uint32_t timeoutMs) {
  const uint64_t self = Thd::current();
  const size_t own = current() == this ? 1 : 0;  // the link the caller serves is not waited for
  Waiting waiting;  // the links that are ending need the pool's threads
  std::unique_lock lock(mutex);
  // Called inside a notification: give up the turn while waiting, so that the links that are
  // ending can deliver their disconnects; take it back afterwards.
  uint32_t depth = 0;
  if (notifier == self) {
    depth = notifyDepth;
    notifier = 0;
    notifyDepth = 0;
    changed.notify_all();
  }
  auto done = [&] { return running <= own; };
  bool ended = true;
  if (timeoutMs == kForever)
    changed.wait(lock, done);
  else
    ended = changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
  if (depth) {
    changed.wait(lock, [&] { return notifier == 0; });
    notifier = self;
    notifyDepth = depth;
  }
  return ended;
}

}  // namespace Libraries::Service

bool makeWatchedEpoll(int* epoll, int* wake, int eventFlags) {
  int event = HostFd::opened(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC | eventFlags));
  if (event < 0) return false;
  int set = HostFd::opened(::epoll_create1(EPOLL_CLOEXEC));
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = 0;
  if (set < 0 || ::epoll_ctl(set, EPOLL_CTL_ADD, event, &ev) != 0) {
    int error = errno;
    HostFd::close(set);
    HostFd::close(event);
    errno = error;
    return false;
  }
  *wake = event;
  *epoll = set;
  return true;
}
