// Shared memory: each object is the file RT/shm/<id>, with the id as 16 lowercase hex digits.
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <string>

#include "platform/error.h"
#include "platform/proc.h"
#include "platform/runtime.h"
#include "platform/shmem.h"
#include "file/host_fd.h"

namespace {

std::string objectPath(uint64_t id) {
  char name[32];
  std::snprintf(name, sizeof name, "shm/%016" PRIx64, id);
  return Runtime::path(name);
}

// A random id; 0 stands for "no shared memory" and is never handed out.
bool randomId(uint64_t* id) {
  do {
    if (getrandom(id, sizeof *id, 0) != static_cast<ssize_t>(sizeof *id)) {
      if (errno == EINTR) continue;
      return false;
    }
  } while (*id == 0);
  return true;
}

}  // namespace

bool SharedMemory::grant(uint64_t /*pid*/) { return true; }

SharedMemory::~SharedMemory() {
  HostFd::close(fd_);
}

Ref<SharedMemory> ShMem::open(ShMemID id) {
  if (id.id == 0) {
    Error::set(EINVAL);
    return nullptr;
  }
  // Clients make the objects, so one may be anything: the open neither follows a link nor
  // waits (a FIFO, or a lease a client holds on the file), and only a regular file is kept.
  int fd = HostFd::opened(
      ::open(objectPath(id.id).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (fd < 0) {
    Error::set(static_cast<uint32_t>(errno));
    return nullptr;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    Error::set(EINVAL);
    HostFd::close(fd);
    return nullptr;
  }
  return new SharedMemory(fd, id);
}

Ref<SharedMemory> ShMem::create(uint64_t size) {
  // A clash with an existing object is astronomically rare; a few fresh ids settle it.
  for (int attempt = 0; attempt < 8; ++attempt) {
    uint64_t id = 0;
    if (!randomId(&id)) {
      Error::set(static_cast<uint32_t>(errno));
      return nullptr;
    }
    std::string path = objectPath(id);
    int fd = HostFd::opened(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd < 0 && errno == EEXIST) continue;
    if (fd < 0) {
      Error::set(static_cast<uint32_t>(errno));
      return nullptr;
    }
    if (::ftruncate(fd, static_cast<off_t>(size)) != 0) {
      Error::set(static_cast<uint32_t>(errno));
      HostFd::close(fd);
      ::unlink(path.c_str());
      return nullptr;
    }
    return new SharedMemory(fd, ShMemID{id, size});
  }
  Error::set(EEXIST);
  return nullptr;
}
