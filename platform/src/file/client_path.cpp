// Reading a path for a client. Most paths are opened by one openat2 that follows no link of a
// process's /proc directory (and, under /proc, no link at all): what it opens outside procfs
// means the same to the client, and a result inside procfs is checked. A client's own
// descriptor named as /proc/<pid>/fd/<n> is opened as the host follows it. Any other path
// that meets such a link, or lands in procfs, is walked name by name, as the host's own lookup
// would, with the names that mean "the caller" read for the client and every step checked
// against the server's own process directory.
#include "platform/client_path.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "file/client_path_fd.h"

namespace {

// The host's budget of symbolic links one lookup may follow.
constexpr int kMaxLinks = 40;
// The inode number of the root directory of a procfs mount.
constexpr ino_t kProcRootIno = 1;

int fail(int error) {
  errno = error;
  return -1;
}

bool onProc(int fd) {
  struct statfs fs;
  return ::fstatfs(fd, &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC;
}

bool numeric(const std::string& name, uint64_t* value) {
  if (name.empty() || name.size() > 19) return false;
  uint64_t v = 0;
  for (char c : name) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  *value = v;
  return true;
}

uint64_t ourPid() {
  static const uint64_t pid = static_cast<uint64_t>(::getpid());
  return pid;
}

// Whether `id` is this process or one of its threads (each has a /proc/<tid> of its own).
bool ourTask(uint64_t id) {
  if (id == ourPid()) return true;
  char name[48];
  std::snprintf(name, sizeof name, "/proc/self/task/%llu", static_cast<unsigned long long>(id));
  return ::access(name, F_OK) == 0;
}

int openHow(int dir, const char* path, open_how& how) {
  int fd;
  do {
    fd = static_cast<int>(::syscall(SYS_openat2, dir, path, &how, sizeof how));
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Whether the walk settles what openat2 answered: ELOOP, a link the lookup may not follow (or
// too many); EINVAL, flag or mode bits that open(2) ignores and openat2 refuses; ENOSYS, a host
// without openat2; E2BIG, one whose open_how is smaller.
bool walkable(int error) {
  return error == ELOOP || error == EINVAL || error == ENOSYS || error == E2BIG;
}

// Whether `path` is exactly "/proc/<n>/fd/<m>"; `*owner` is n.
bool procDescriptor(const char* path, uint64_t* owner) {
  const char* at = path;
  auto number = [&at](uint64_t* value) {
    const char* begin = at;
    while (*at >= '0' && *at <= '9') ++at;
    return at != begin && at - begin <= 19 && numeric(std::string(begin, at), value);
  };
  uint64_t fd = 0;
  if (std::strncmp(at, "/proc/", 6) != 0) return false;
  at += 6;
  if (!number(owner) || std::strncmp(at, "/fd/", 4) != 0) return false;
  at += 4;
  return number(&fd) && *at == '\0';
}

// Refuses a descriptor in this process's /proc directory: closes it and answers EACCES.
int checked(int fd) {
  if (fd >= 0 && onProc(fd) && ClientPath::ofThisProcess(fd)) {
    ::close(fd);
    return fail(EACCES);
  }
  return fd;
}

// One walk: the directory reached so far and what is left of the path.
class Walk {
 public:
  Walk(int flags, mode_t mode, uint64_t pid) : flags_(flags), mode_(mode), pid_(pid) {}
  ~Walk() {
    if (cur_ >= 0) ::close(cur_);
  }
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  int run(int dir, const std::string& path);

 private:
  static constexpr int kGoOn = -2;  // a step's answer when the walk goes on

  // Makes `fd` the current directory. With `check`, a directory inside this process's /proc
  // directory is refused (EACCES): needed where the walk may have landed anywhere in procfs.
  // A name looked up inside a procfs directory stays in it, and a process directory at the
  // procfs root is checked by its name.
  bool moveTo(int fd, bool check = true, const struct stat* known = nullptr);
  bool start(int dir, const char* name) {
    return moveTo(::openat(dir, name, O_PATH | O_DIRECTORY | O_CLOEXEC));
  }
  void splice(const std::string& text) { todo_ = todo_.empty() ? text : text + "/" + todo_; }
  // Reads the link `name` in the current directory into the path; kGoOn or -1.
  int readLink(int at, const char* name);
  // Answers the name "self" or "thread-self" at the procfs root stands for; kGoOn when it
  // was spliced into the path, -1 when the client has no /proc directory.
  int client(std::string* name);
  int step(const std::string& name, bool slash);
  int last(std::string name);

  const int flags_;
  const mode_t mode_;
  const uint64_t pid_;
  int cur_ = -1;
  bool onProc_ = false;  // cur_ is on procfs
  bool procRoot_ = false;  // cur_ is the root of a procfs mount
  dev_t lastDev_ = 0;  // the device whose kind was asked last, and its answer
  bool lastDevKnown_ = false;
  bool lastDevProc_ = false;
  std::string todo_;
  int links_ = 0;
};

bool Walk::moveTo(int fd, bool check, const struct stat* known) {
  if (fd < 0) return false;
  if (cur_ >= 0) ::close(cur_);
  cur_ = fd;
  struct stat st{};
  if (known) {
    st = *known;
  } else if (::fstat(fd, &st) != 0) {
    return false;
  }
  // Whether a device is procfs is asked once per walk: most walks cross one or two.
  if (st.st_dev != lastDev_ || !lastDevKnown_) {
    lastDev_ = st.st_dev;
    lastDevKnown_ = true;
    lastDevProc_ = onProc(fd);
  }
  onProc_ = lastDevProc_;
  procRoot_ = onProc_ && st.st_ino == kProcRootIno;
  if (check && onProc_ && ClientPath::ofThisProcess(fd)) {
    errno = EACCES;
    return false;
  }
  return true;
}

int Walk::readLink(int at, const char* name) {
  char target[PATH_MAX];
  ssize_t n = ::readlinkat(at, name, target, sizeof target);
  if (n < 0) return -1;
  if (n == 0) return fail(ENOENT);
  if (n == static_cast<ssize_t>(sizeof target)) return fail(ENAMETOOLONG);
  splice(std::string(target, static_cast<size_t>(n)));
  if (target[0] == '/' && !start(AT_FDCWD, "/")) return -1;
  return kGoOn;
}

int Walk::client(std::string* name) {
  // Each counts as the link it stands for.
  if (++links_ > kMaxLinks) return fail(ELOOP);
  if (pid_ == 0) return fail(EACCES);
  const std::string pid = std::to_string(pid_);
  if (*name == "self") {
    *name = pid;
    return 0;
  }
  splice(pid + "/task/" + pid);
  return kGoOn;
}

int Walk::step(const std::string& name, bool slash) {
  if (name == ".") return kGoOn;
  if (name == "..") {
    return moveTo(::openat(cur_, "..", O_PATH | O_DIRECTORY | O_CLOEXEC)) ? kGoOn : -1;
  }
  std::string real = name;
  uint64_t id = 0;
  if (procRoot_ && (name == "self" || name == "thread-self")) {
    if (int rc = client(&real)) return rc;
  } else if (procRoot_ && numeric(name, &id) && ourTask(id)) {
    return fail(EACCES);
  }
  int fd = ::openat(cur_, real.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    // "name/" with O_CREAT names a directory that cannot be made by open.
    return slash && errno == ENOENT && (flags_ & O_CREAT) ? fail(EISDIR) : -1;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    ::close(fd);
    return -1;
  }
  if (!S_ISLNK(st.st_mode)) return moveTo(fd, !onProc_, &st) ? kGoOn : -1;
  if (++links_ > kMaxLinks) {
    ::close(fd);
    return fail(ELOOP);
  }
  if (onProc_ && !procRoot_) {
    // A link inside a process directory (fd/N, cwd, root, exe...) means what it means to
    // that process: the host follows it.
    ::close(fd);
    return moveTo(::openat(cur_, real.c_str(), O_PATH | O_CLOEXEC)) ? kGoOn : -1;
  }
  int rc = readLink(fd, "");
  ::close(fd);
  return rc;
}

int Walk::last(std::string name) {
  // The client's O_NOFOLLOW, and O_CREAT with O_EXCL, take a link at the end as it is.
  const bool follow = !(flags_ & O_NOFOLLOW) && !((flags_ & O_CREAT) && (flags_ & O_EXCL));
  uint64_t id = 0;
  if (procRoot_ && follow && (name == "self" || name == "thread-self")) {
    if (int rc = client(&name)) return rc;
  } else if (procRoot_ && numeric(name, &id) && ourTask(id)) {
    return fail(EACCES);
  }
  struct stat st;
  const bool dots = name == "." || name == "..";
  if (follow && !dots && ::fstatat(cur_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
      S_ISLNK(st.st_mode)) {
    if (++links_ > kMaxLinks) return fail(ELOOP);
    if (onProc_ && !procRoot_) {
      return checked(::openat(cur_, name.c_str(), flags_ | O_CLOEXEC, mode_));
    }
    return readLink(cur_, name.c_str());
  }
  // Not a link when looked at: O_NOFOLLOW makes sure it is none when opened either.
  int fd = ::openat(cur_, name.c_str(), flags_ | O_CLOEXEC | (follow && !dots ? O_NOFOLLOW : 0),
                    mode_);
  bool becameLink = fd < 0 && errno == ELOOP;
  if (fd >= 0 && (flags_ & O_PATH) && follow && !dots && ::fstat(fd, &st) == 0 &&
      S_ISLNK(st.st_mode)) {
    ::close(fd);
    becameLink = true;
  }
  if (follow && !dots && becameLink) {
    if (++links_ > kMaxLinks) return fail(ELOOP);
    todo_ = name;  // look again
    return kGoOn;
  }
  return checked(fd);
}

int Walk::run(int dir, const std::string& path) {
  todo_ = path;
  if (todo_.empty()) return fail(ENOENT);
  if (!(todo_[0] == '/' ? start(AT_FDCWD, "/") : start(dir, "."))) return -1;
  for (;;) {
    size_t begin = todo_.find_first_not_of('/');
    if (begin == std::string::npos) return checked(::openat(cur_, ".", flags_ | O_CLOEXEC, mode_));
    size_t end = todo_.find('/', begin);
    std::string name = todo_.substr(begin, end == std::string::npos ? end : end - begin);
    size_t next = end == std::string::npos ? end : todo_.find_first_not_of('/', end);
    const bool slash = next == std::string::npos && end != std::string::npos;
    todo_ = next == std::string::npos ? (slash ? "/" : "") : todo_.substr(next);
    int rc = next == std::string::npos && !slash ? last(name) : step(name, slash);
    if (rc != kGoOn) return rc;
  }
}

}  // namespace

namespace ClientPath {

int open(int dir, const char* path, int flags, mode_t mode, uint64_t pid) {
  if (!path) return fail(EFAULT);
  // "/proc/<n>/fd/<m>" and nothing more: a descriptor of process n, which the host follows as
  // that process's own (how clients hand over their standard files). Only the server's own is
  // refused; the file it leads to is checked like every result.
  uint64_t owner = 0;
  if (procDescriptor(path, &owner)) {
    // The requester is another process than the server: its own descriptors are no look-up.
    if ((owner != pid || owner == ourPid()) && ourTask(owner)) return fail(EACCES);
    // A number the host does not write (a leading zero) names no process: looked up as given.
    if (path[6] != '0') {
      return checked(ClientPath::openDescriptor(owner, std::strrchr(path, '/') + 1, flags, mode));
    }
    int fd;
    do {
      fd = ::openat(AT_FDCWD, path, flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return checked(fd);
  }
  // Only O_CREAT and O_TMPFILE take a mode; openat2 refuses one otherwise.
  const bool takesMode = (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE;
  open_how how{};
  how.flags = static_cast<uint64_t>(static_cast<unsigned>(flags | O_CLOEXEC));
  how.mode = takesMode ? (mode & 07777) : 0;
  // A path under /proc follows no link at all. Any other may follow ordinary links, but no
  // link of a process's /proc directory: then it ends outside procfs only where it means the
  // same to the client (nothing but /proc/self and its kind mean the caller, and their links
  // lead nowhere else), and a result on procfs is looked up again name by name.
  const bool underProc = std::strncmp(path, "/proc/", 6) == 0;
  how.resolve = underProc ? RESOLVE_NO_SYMLINKS : RESOLVE_NO_MAGICLINKS;
  int fd = openHow(dir, path, how);
  if (fd >= 0 && underProc) return checked(fd);
  if (fd >= 0 && !onProc(fd)) return fd;
  if (fd >= 0) {
    ::close(fd);
  } else if (!walkable(errno)) {
    if (underProc) return -1;
    // The failure may come from a link that led into this process's /proc directory, where a
    // name the client has is missing. Without following any link, the same failure is the
    // path's own.
    how.resolve = RESOLVE_NO_SYMLINKS;
    fd = openHow(dir, path, how);
    if (fd >= 0) return checked(fd);
    if (!walkable(errno)) return -1;
  }
  Walk walk(flags, mode, pid);
  return walk.run(dir, path);
}

bool ofThisProcess(int fd) {
  struct stat self;
  if (!onProc(fd) || (::fstat(fd, &self) == 0 && self.st_ino == kProcRootIno)) return false;
  char link[48];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[PATH_MAX];
  ssize_t n = ::readlink(link, target, sizeof target - 1);
  if (n <= 0) return true;  // where it is cannot be told: refused
  const std::string text(target, static_cast<size_t>(n));
  // The name right below the root of a procfs mount tells: a number names a process. A file
  // of procfs whose path passes no procfs root (a part of /proc mounted elsewhere) cannot be
  // told apart and is refused.
  for (size_t pos = 0; pos < text.size();) {
    size_t begin = text.find_first_not_of('/', pos);
    if (begin == std::string::npos) break;
    size_t end = text.find('/', begin);
    if (end == std::string::npos) end = text.size();
    const std::string parent = begin > 1 ? text.substr(0, begin - 1) : "/";
    struct statfs fs;
    struct stat st;
    if (::statfs(parent.c_str(), &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC &&
        ::stat(parent.c_str(), &st) == 0 && st.st_ino == kProcRootIno) {
      uint64_t id = 0;
      return numeric(text.substr(begin, end - begin), &id) && ourTask(id);
    }
    pos = end;
  }
  return true;
}

}  // namespace ClientPath
