#include "program_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/client_path.h"
#include "file/host_fd.h"

namespace {

// A name that holds a NUL byte would open only its part before the NUL.
bool wholeName(const Ref<String>& name) { return std::strlen(name->c_str()) == name->length(); }

// Opens `name` relative to `dir` without waiting for anything: O_NONBLOCK for the open only,
// cleared again so the program sees the blocking file it expects. The descriptor lands above
// the standard numbers (a server whose own 0, 1 or 2 is closed would otherwise get one there,
// and one start's dup2 could overwrite another of its files) and is closed on exec.
int openNoWait(int dir, const Ref<String>& name, int access, uint64_t pid, int* out) {
  if (!wholeName(name)) return EINVAL;
  int fd = ClientPath::open(dir, name->c_str(), access | O_NONBLOCK | O_NOCTTY, 0, pid);
  if (fd < 0) return errno;
  if (fd <= STDERR_FILENO) {
    int high = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int err = errno;
    ::close(fd);
    if (high < 0) return err;
    fd = high;
  }
  // F_SETFL sets the status flags it knows as given: the ones this open asked for, less
  // O_NONBLOCK (no F_GETFL needed to keep the others).
  if (::fcntl(fd, F_SETFL, access & ~(O_ACCMODE | O_NONBLOCK)) != 0) {
    int err = errno;
    ::close(fd);
    return err;
  }
  *out = fd;
  return 0;
}

// A handed file as the start uses it: `fd` itself, or a copy above the standard numbers
// (kept in `*owned`) when it is one of them, for the reason openNoWait gives.
int useHanded(int fd, int* owned) {
  if (fd > STDERR_FILENO) return fd;
  *owned = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (*owned < 0) return -errno;
  return *owned;
}

}  // namespace

StartFiles& StartFiles::operator=(StartFiles&& other) noexcept {
  if (this != &other) {
    for (int i = 0; i < kSlots; ++i) set(i, std::exchange(other.fds_[i], -1));
  }
  return *this;
}

void StartFiles::set(int slot, int fd) {
  if (slot < 0 || slot >= kSlots) {
    HostFd::close(fd);
    return;
  }
  HostFd::close(std::exchange(fds_[slot], fd < 0 ? -1 : fd));
}

void StartFiles::clear() {
  for (int& fd : fds_) HostFd::close(std::exchange(fd, -1));
}

ProgramFiles::~ProgramFiles() {
  for (int fd : owned_) {
    if (fd >= 0) ::close(fd);
  }
}

bool ProgramFiles::take(const Env& env, uint64_t i) {
  // Every consumed name starts "POSIX_": most pairs are passed over on their first bytes.
  if (env.nameLength(i) < 6 || std::memcmp(env.text(i), "POSIX_", 6) != 0) return false;
  if (env.named(i, kDirName)) {
    Ref<String> value = env.valueAt(i);
    dirName_ = value->length() > 0 ? value : nullptr;  // empty: the server's directory
    return true;
  }
  for (int k = 0; k < 3; ++k) {
    if (!env.named(i, kNames[k])) continue;
    names_[k] = env.valueAt(i);
    return true;
  }
  return false;
}

int ProgramFiles::open(uint64_t pid, const StartFiles* handed) {
  if (dirName_) {
    if (!wholeName(dirName_)) return EINVAL;
    dir_ = owned_[3] = ClientPath::open(AT_FDCWD, dirName_->c_str(), O_PATH | O_DIRECTORY, 0, pid);
    if (dir_ < 0) return errno;
  } else if (handed && handed->get(StartFiles::kDirSlot) >= 0) {
    // The child changes directory to it and nothing else: its number does not matter.
    dir_ = handed->get(StartFiles::kDirSlot);
  }
  for (int i = 0; i < 3; ++i) {
    if (!names_[i] && handed && handed->get(i) >= 0) {
      fds_[i] = useHanded(handed->get(i), &owned_[i]);
      if (fds_[i] < 0) return -fds_[i];
      continue;
    }
    // Input is /dev/null unless named; output and error stay the server's own unless named.
    if (i == 0 && !names_[0]) names_[0] = String::create("/dev/null");
    if (!names_[i] || names_[i]->length() == 0) continue;
    // Output appends, so a file that the starter's own output goes to is continued.
    int access = i == 0 ? O_RDONLY : O_WRONLY | O_APPEND;
    if (int err = openNoWait(dirFd(), names_[i], access, pid, &owned_[i])) return err;
    fds_[i] = owned_[i];
  }
  return 0;
}

void ProgramFiles::place(SpawnPlan* plan) const {
  plan->dir = dir_;
  for (int i = 0; i < 3; ++i) {
    plan->from[i] = fds_[i];
    plan->closed[i] = fds_[i] < 0 && names_[i];  // named empty: the program starts without it
  }
}

int ProgramFiles::dirFd() const { return dir_ >= 0 ? dir_ : AT_FDCWD; }
