// Reading this process's own memory without faulting. The kernel does the copying: an address
// that is not mapped readable makes the system call fail with EFAULT instead of raising a
// signal, which matters because the reader runs inside the exception handler. The calls go
// straight to the kernel (not through library wrappers) so that no sanitizer interceptor looks
// at the addresses first.
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

#include "platform/binary_services.h"

namespace Services::Binary::Client {

namespace {

// Pipe transfers stay far below the pipe's capacity, so a write never blocks or splits.
constexpr uint64_t kChunk = 4096;

long vmRead(uint64_t address, void* buffer, uint64_t size) {
  struct iovec local = {buffer, size};
  struct iovec remote = {reinterpret_cast<void*>(address), size};
  return syscall(SYS_process_vm_readv, static_cast<long>(getpid()), &local, 1L, &remote, 1L, 0L);
}

// Whether process_vm_readv works on this host (a sandbox may forbid it).
bool vmReadWorks() {
  uint64_t probe = 0x5a5a5a5a5a5a5a5aull;
  uint64_t copy = 0;
  return vmRead(reinterpret_cast<uint64_t>(&probe), &copy, sizeof copy) ==
             static_cast<long>(sizeof copy) &&
         copy == probe;
}

}  // namespace

Ref<CoreMemory> CoreMemory::create(bool pipeOnly) {
  if (!pipeOnly && vmReadWorks()) return new CoreMemory(false);
  Ref<CoreMemory> memory = new CoreMemory(true);
  if (syscall(SYS_pipe2, memory->pipe_, O_CLOEXEC | O_NONBLOCK) != 0) return nullptr;
  return memory;
}

CoreMemory::CoreMemory(bool viaPipe) : viaPipe_(viaPipe) {}

CoreMemory::~CoreMemory() {
  for (int fd : pipe_)
    if (fd >= 0) syscall(SYS_close, fd);
}

bool CoreMemory::readChunk(uint64_t address, void* buffer, uint64_t size) {
  if (!viaPipe_) {
    long n;
    do {
      n = vmRead(address, buffer, size);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<long>(size);
  }
  long written;
  do {
    written = syscall(SYS_write, pipe_[1], reinterpret_cast<const void*>(address), size);
  } while (written < 0 && errno == EINTR);
  if (written <= 0) return false;
  // Drain what went in, even on a short write, so that the pipe is empty for the next read.
  uint64_t drained = 0;
  while (drained < static_cast<uint64_t>(written)) {
    long n = syscall(SYS_read, pipe_[0], static_cast<char*>(buffer) + drained,
                     static_cast<uint64_t>(written) - drained);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    drained += static_cast<uint64_t>(n);
  }
  return static_cast<uint64_t>(written) == size;
}

bool CoreMemory::read(uint64_t address, void* buffer, uint64_t size) {
  if (size == 0) return true;
  if (!buffer || address == 0 || address + size < address) return false;
  int savedErrno = errno;  // the handler must not disturb the interrupted code's errno
  bool ok = true;
  for (uint64_t done = 0; ok && done < size;) {
    uint64_t part = size - done < kChunk ? size - done : kChunk;
    ok = readChunk(address + done, static_cast<char*>(buffer) + done, part);
    done += part;
  }
  errno = savedErrno;
  return ok;
}

bool CoreMemory::readable(uint64_t address, uint64_t size) {
  char scratch[256];
  for (uint64_t done = 0; done < size;) {
    uint64_t part = size - done < sizeof scratch ? size - done : sizeof scratch;
    if (!read(address + done, scratch, part)) return false;
    done += part;
  }
  return true;
}

}  // namespace Services::Binary::Client
