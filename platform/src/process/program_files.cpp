#include "program_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/client_path.h"

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

}  // namespace

ProgramFiles::~ProgramFiles() {
  if (dir_ >= 0) ::close(dir_);
  for (int fd : fds_) {
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

int ProgramFiles::open(uint64_t pid) {
  if (dirName_) {
    if (!wholeName(dirName_)) return EINVAL;
    dir_ = ClientPath::open(AT_FDCWD, dirName_->c_str(), O_PATH | O_DIRECTORY, 0, pid);
    if (dir_ < 0) return errno;
  }
  // Input is /dev/null unless named; output and error stay the server's own unless named.
  if (!names_[0]) names_[0] = String::create("/dev/null");
  for (int i = 0; i < 3; ++i) {
    if (!names_[i] || names_[i]->length() == 0) continue;
    // Output appends, so a file that the starter's own output goes to is continued.
    int access = i == 0 ? O_RDONLY : O_WRONLY | O_APPEND;
    if (int err = openNoWait(dirFd(), names_[i], access, pid, &fds_[i])) return err;
  }
  return 0;
}

namespace {

// The file actions last made on this thread and the descriptors they were made for. The
// starts of one agent thread come one after another and open their files into the same
// descriptor numbers, so the actions are made again only when the numbers differ: making them
// costs the C library a look-up of the descriptor limit for each descriptor named.
struct MadeActions {
  bool made = false;
  int layout[7] = {};
  posix_spawn_file_actions_t actions;
  MadeActions() = default;
  MadeActions(const MadeActions&) = delete;
  MadeActions& operator=(const MadeActions&) = delete;
  ~MadeActions() { drop(); }
  void drop() {
    if (made) posix_spawn_file_actions_destroy(&actions);
    made = false;
  }
};
thread_local MadeActions t_made;

}  // namespace

const posix_spawn_file_actions_t* ProgramFiles::actions(int* error) const {
  // The directory, each standard descriptor's source, and which start closed.
  int layout[7] = {dir_, fds_[0], fds_[1], fds_[2], 0, 0, 0};
  for (int i = 0; i < 3; ++i) layout[4 + i] = fds_[i] < 0 && names_[i] ? 1 : 0;
  if (t_made.made && std::memcmp(layout, t_made.layout, sizeof layout) == 0) return &t_made.actions;
  t_made.drop();
  posix_spawn_file_actions_t* actions = &t_made.actions;
  int rc = posix_spawn_file_actions_init(actions);
  if (rc != 0) {
    *error = rc;
    return nullptr;
  }
  t_made.made = true;
  rc = dir_ >= 0 ? posix_spawn_file_actions_addfchdir_np(actions, dir_) : 0;
  for (int i = 0; rc == 0 && i < 3; ++i) {
    if (fds_[i] >= 0) {
      rc = posix_spawn_file_actions_adddup2(actions, fds_[i], i);
    } else if (names_[i]) {  // named empty: the program starts with it closed
      rc = posix_spawn_file_actions_addclose(actions, i);
    }
  }
  // Nothing of the server's reaches the program: it starts with its standard files only,
  // whatever the server holds without close-on-exec (what it inherited, or a descriptor that
  // a library opened without the flag).
  if (rc == 0) rc = posix_spawn_file_actions_addclosefrom_np(actions, STDERR_FILENO + 1);
  if (rc != 0) {
    t_made.drop();
    *error = rc;
    return nullptr;
  }
  std::memcpy(t_made.layout, layout, sizeof layout);
  return actions;
}

int ProgramFiles::dirFd() const { return dir_ >= 0 ? dir_ : AT_FDCWD; }
