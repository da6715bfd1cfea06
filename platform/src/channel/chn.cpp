// Making and closing channels: the listening socket under RT/chn/, the optional name link, and
// the client-side connect helper.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "chn_impl.h"
#include "platform/error.h"
#include "platform/runtime.h"
#include "posix/wire.h"
#include "file/host_fd.h"

namespace {

bool fillAddress(const std::string& path, sockaddr_un* address) {
  std::memset(address, 0, sizeof *address);
  address->sun_family = AF_UNIX;
  if (path.size() >= sizeof address->sun_path) return false;
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

std::string hexId(uint64_t id) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(id));
  return text;
}

uint64_t randomId() {
  uint64_t id = 0;
  while (id == 0) {
    if (::getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) id = 0;
  }
  return id;
}

// A name must stay one entry of RT/chn/ and must not look like an id link target.
bool validName(const char* name) {
  if (!name || !*name || std::strchr(name, '/')) return false;
  return std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0;
}

// Points RT/chn/<name> at our socket. A live holder of the name wins (EADDRINUSE); a stale
// one, whose socket nobody listens on any more, is replaced.
bool claimName(const std::string& namePath, const std::string& idText) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    if (::symlink(idText.c_str(), namePath.c_str()) == 0) return true;
    if (errno != EEXIST) return false;
    if (Runtime::listener(namePath) != 0) {
      errno = EADDRINUSE;
      return false;
    }
    if (::unlink(namePath.c_str()) != 0 && errno != ENOENT) return false;
  }
  errno = EADDRINUSE;  // another process keeps claiming it at the same moment
  return false;
}

// Listening socket at a fresh RT/chn/<id>; answers the socket or -1.
int listenAtFreshId(uint64_t* id, std::string* path) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    *id = randomId();
    *path = chnPath(*id);
    sockaddr_un address;
    if (!fillAddress(*path, &address)) {
      errno = ENAMETOOLONG;
      return -1;
    }
    int fd = HostFd::opened(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (fd < 0) return -1;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      if (::listen(fd, SOMAXCONN) == 0) return fd;
      int saved = errno;
      ::unlink(path->c_str());
      HostFd::close(fd);
      errno = saved;
      return -1;
    }
    int saved = errno;
    HostFd::close(fd);
    errno = saved;
    if (saved != EADDRINUSE) return -1;  // an id collision is the only reason to try again
  }
  return -1;
}

bool watch(int epollFd, int fd, uint64_t key) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = key;
  return ::epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace

int chnListenAtFreshId(uint64_t* id, std::string* path) {
  // Made and listed as owned in one step, so that a shut-down never leaves it behind.
  Runtime::MakingFile making;
  if (!making.allowed()) {
    errno = ESHUTDOWN;
    return -1;
  }
  int fd = listenAtFreshId(id, path);
  if (fd >= 0) making.own(*path);
  return fd;
}

void Chn::reserveDescriptors(size_t count) { DescriptorReserve::keep(count); }

std::string chnPath(uint64_t id) { return Runtime::path("chn/" + hexId(id)); }

// Removes the socket and its name, once. The name is removed only while it still leads to
// this channel.
void ChnServe::removeFiles(Chn::Impl& s) {
  {
    std::lock_guard lock(s.mutex);
    if (s.filesRemoved) return;
    s.filesRemoved = true;
  }
  if (!s.namePath.empty()) {
    char target[64];
    ssize_t n = ::readlink(s.namePath.c_str(), target, sizeof target - 1);
    if (n >= 0 && s.idText.compare(0, std::string::npos, target, static_cast<size_t>(n)) == 0)
      ::unlink(s.namePath.c_str());
    Runtime::disownFile(s.namePath);
  }
  ::unlink(s.socketPath.c_str());
  Runtime::disownFile(s.socketPath);
}

Ref<Chn> Chn::create(Ref<ConMan> conMan, Ref<String> name) {
  if (!conMan || (name && !validName(name->c_str()))) {
    Error::set(EINVAL);
    return nullptr;
  }
  if (!Runtime::prepare(nullptr)) {
    Error::set(EACCES);
    return nullptr;
  }
  Ref<Chn> chn = new Chn();
  Impl* s = new Impl();
  chn->impl_ = s;
  s->listenFd = chnListenAtFreshId(&chn->id_, &s->socketPath);
  if (s->listenFd < 0) {
    Error::set(errno);
    chn->id_ = 0;
    s->filesRemoved = true;  // nothing was made
    return nullptr;
  }
  s->idText = hexId(chn->id_);
  if (name) {
    s->namePath = Runtime::path(std::string("chn/") + name->c_str());
    bool claimed = false;
    {
      Runtime::MakingFile making;
      errno = ESHUTDOWN;
      claimed = making.allowed() && claimName(s->namePath, s->idText);
      if (claimed) making.own(s->namePath);
    }
    if (!claimed) {
      Error::set(errno);
      s->namePath.clear();
      return nullptr;  // the destructor removes the socket
    }
    Runtime::nameClaimed(s->namePath);
  }
  s->epollFd = HostFd::opened(::epoll_create1(EPOLL_CLOEXEC));
  s->wakeFd = HostFd::opened(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (s->epollFd < 0 || s->wakeFd < 0 || !watch(s->epollFd, s->wakeFd, ChnServe::kWakeKey) ||
      !watch(s->epollFd, s->listenFd, ChnServe::kListenKey)) {
    Error::set(errno);
    return nullptr;
  }
  s->listenWatched = true;
  s->buffer.resize(ChnServe::kBatch * PX_WIRE_MAX_FRAME);
  s->conMan = std::move(conMan);
  return chn;
}

void Chn::attend(ChnLink* link) {
  Impl& s = *impl_;
  {
    std::lock_guard lock(s.mutex);
    s.attention.push_back(Ref<ChnLink>(link));
  }
  uint64_t one = 1;
  ssize_t n = ::write(s.wakeFd, &one, sizeof one);
  (void)n;  // a full counter already wakes the loop
}

void Chn::close() {
  if (!impl_) return;
  Impl& s = *impl_;
  std::vector<Ref<ChnLink>> open;
  {
    std::lock_guard lock(s.mutex);
    if (s.closed) return;
    s.closed = true;
    for (auto& [key, entry] : s.links) open.push_back(entry.link);
  }
  ChnServe::removeFiles(s);
  // Clients learn at once; the serving thread disconnects the links when it sees the close.
  for (const Ref<ChnLink>& link : open) link->shutdown();
  uint64_t one = 1;
  ssize_t n = ::write(s.wakeFd, &one, sizeof one);
  (void)n;
}

Chn::~Chn() {
  if (!impl_) return;
  Impl& s = *impl_;
  bool tear;
  {
    std::lock_guard lock(s.mutex);
    s.closed = true;
    tear = !s.tornDown;
    s.tornDown = true;
  }
  ChnServe::removeFiles(s);
  if (tear) ChnServe::tearDown(s);
  HostFd::close(s.epollFd);
  HostFd::close(s.wakeFd);
  delete impl_;
}

int chnConnect(const char* socketPath) {
  sockaddr_un address;
  if (!socketPath || !fillAddress(socketPath, &address)) {
    errno = socketPath ? ENAMETOOLONG : EINVAL;
    return -1;
  }
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    int saved = errno;
    ::close(fd);
    errno = saved;
    return -1;
  }
  return fd;
}
