// Shared-memory objects: the files RT/shm/<16 lowercase hex digits>, named by (id, size).
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "internal.h"
#include "posix_client.h"

namespace pxc {

namespace {

std::string shmPath(uint64_t id) {
  char name[17];
  snprintf(name, sizeof name, "%016llx", static_cast<unsigned long long>(id));
  return runtimeDir() + "/shm/" + name;
}

uint64_t randomId() {
  uint64_t id = 0;
  while (id == 0) {
    if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) id = 0;
  }
  return id;
}

}  // namespace

}  // namespace pxc

extern "C" {

int px_shm_create(uint64_t size, px_shm_id* out) {
  if (out == nullptr || size > static_cast<uint64_t>(INT64_MAX)) return pxc::fail(EINVAL);
  // The server makes RT/shm at start; make it here too so a client may go first, but only in
  // a runtime directory of our own.
  int err = pxc::checkRuntimeDir();
  if (err != 0) return pxc::fail(err);
  mkdir((pxc::runtimeDir() + "/shm").c_str(), 0700);
  for (int attempt = 0; attempt < 8; ++attempt) {
    uint64_t id = pxc::randomId();
    std::string path = pxc::shmPath(id);
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && errno == EEXIST) continue;
    if (fd < 0) return pxc::fail(errno);
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
      err = errno;
      close(fd);
      unlink(path.c_str());
      return pxc::fail(err);
    }
    close(fd);
    out->id = id;
    out->size = size;
    return 0;
  }
  return pxc::fail(EEXIST);
}

int px_shm_open(const px_shm_id* shm) {
  if (shm == nullptr || shm->id == 0) return pxc::fail(EINVAL);
  int err = pxc::checkRuntimeDir();
  if (err != 0) return pxc::fail(err);
  int fd = open(pxc::shmPath(shm->id).c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return pxc::fail(errno);
  return fd;
}

void* px_shm_map(const px_shm_id* shm) {
  if (shm == nullptr || shm->size == 0) {
    errno = EINVAL;
    return nullptr;
  }
  int fd = px_shm_open(shm);
  if (fd < 0) return nullptr;
  void* addr = mmap(nullptr, shm->size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  int err = errno;
  close(fd);
  if (addr == MAP_FAILED) {
    errno = err;
    return nullptr;
  }
  return addr;
}

int px_shm_unmap(void* addr, const px_shm_id* shm) {
  if (addr == nullptr || shm == nullptr) return pxc::fail(EINVAL);
  if (munmap(addr, shm->size) != 0) return pxc::fail(errno);
  return 0;
}

int px_shm_unlink(const px_shm_id* shm) {
  if (shm == nullptr || shm->id == 0) return pxc::fail(EINVAL);
  if (unlink(pxc::shmPath(shm->id).c_str()) != 0) return pxc::fail(errno);
  return 0;
}

int px_get_shared_memory(px_shm_id* out) {
  if (out == nullptr) return pxc::fail(EINVAL);
  pxc::FrameWriter req(PX_CMD_GET_SHARED_MEMORY);
  pxc::Reply reply;
  int err = pxc::transact(req, &reply);
  if (err != 0) return pxc::fail(err);
  if (reply.code != PX_RESULT_DONE) return pxc::fail(pxc::errnoForResult(reply.code, ENOENT));
  if (!reply.dataU64(0, &out->id) || !reply.dataU64(8, &out->size)) return pxc::fail(EPROTO);
  return 0;
}

}  // extern "C"
