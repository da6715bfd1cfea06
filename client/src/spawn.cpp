// Starting programs through the server. By default a child gets the caller's working directory
// and standard files: the library hands its own descriptors over with the request, and the
// child shares their open file descriptions with the caller, as after a fork.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "internal.h"
#include "posix_client.h"

extern char** environ;

namespace pxc {

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// What the caller gives of its own for each of the standard files and the working directory
// that envp does not name itself: the descriptor, sent with the request (its bit in
// `options`), or for a closed standard descriptor an empty name (the child starts with it
// closed). The directory is an O_PATH descriptor of ".", closed when this goes; should it not
// open, the directory is named by its path.
struct CallerFiles {
  uint32_t options = 0;
  int fds[4] = {-1, -1, -1, -1};
  size_t count = 0;
  int dir = -1;
  Pairs pairs;

  explicit CallerFiles(char* const envp[]);
  ~CallerFiles() {
    if (dir >= 0) ::close(dir);
  }
  CallerFiles(const CallerFiles&) = delete;
  CallerFiles& operator=(const CallerFiles&) = delete;
};

CallerFiles::CallerFiles(char* const envp[]) {
  static const char* const kNames[] = {PX_ENV_STDIN, PX_ENV_STDOUT, PX_ENV_STDERR, PX_ENV_CWD};
  bool named[4] = {false, false, false, false};
  for (char* const* e = envp; *e != nullptr; ++e) {
    // Every one of the names starts "POSIX_": most entries are passed over on their first byte.
    if ((*e)[0] != 'P' || std::strncmp(*e, "POSIX_", 6) != 0) continue;
    for (int k = 0; k < 4; ++k) {
      size_t n = std::strlen(kNames[k]);
      if (std::strncmp(*e, kNames[k], n) == 0 && (*e)[n] == '=') named[k] = true;
    }
  }
  // Bit k of the options stands for slot k, in the order the descriptors are sent.
  for (int fd = 0; fd < 3; ++fd) {
    if (named[fd]) continue;
    if (::fcntl(fd, F_GETFD) < 0) {
      pairs.emplace_back(kNames[fd], "");
    } else {
      options |= 1u << fd;
      fds[count++] = fd;
    }
  }
  if (named[3]) return;
  dir = ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    options |= PX_SPAWN_OPTION_CWD_FD;
    fds[count++] = dir;
    return;
  }
  // A directory that was removed has no path; /proc still leads to it.
  char cwd[PATH_MAX];
  pairs.emplace_back(kNames[3], getcwd(cwd, sizeof cwd) != nullptr
                                    ? std::string(cwd)
                                    : "/proc/" + std::to_string(getpid()) + "/cwd");
}

int64_t spawn(const char* path, char* const argv[], char* const envp[], int flags,
              const px_shm_id* shm) {
  if (path == nullptr || path[0] == '\0') return fail(ENOENT);
  if (envp == nullptr) envp = environ;
  CallerFiles caller(envp);
  const Pairs& defaults = caller.pairs;
  // The values of PX_SPAWN_REQUEST (posix_service.h), put by hand: its counted lists of
  // strings are more than putRequest's fixed values can say.
  FrameWriter req(shm != nullptr ? PX_CMD_SPAWN_SHARED : PX_CMD_SPAWN);
  req.str(path);
  req.u32((flags & PX_SPAWN_SEARCH_PATH) != 0 ? PX_SPAWN_FLAG_SEARCH_PATH : 0);
  uint64_t argc = 0;
  while (argv != nullptr && argv[argc] != nullptr) ++argc;
  req.u64(argc);
  for (uint64_t i = 0; i < argc; ++i) req.str(argv[i]);
  uint64_t envc = defaults.size();
  for (char* const* e = envp; *e != nullptr; ++e) envc += std::strchr(*e, '=') != nullptr;
  req.u64(envc);
  for (const auto& [name, value] : defaults) {
    req.str(name.c_str());
    req.str(value.c_str());
  }
  for (char* const* e = envp; *e != nullptr; ++e) {
    const char* eq = std::strchr(*e, '=');
    if (eq == nullptr) continue;  // not a NAME=VALUE entry
    req.str(*e, static_cast<size_t>(eq - *e));
    req.str(eq + 1);
  }
  req.u32(caller.options);
  if (shm != nullptr) {
    req.u64(shm->id);
    req.u64(shm->size);
  }
  Reply reply;
  int err = transact(req, &reply, false, caller.fds, caller.count);
  if (err != 0) return fail(err);
  if (reply.code == PX_RESULT_FAILED) {
    uint32_t reason = 0;  // the server's errno value; a server that sends none: ENOEXEC
    if (reply.data.size() >= sizeof reason) std::memcpy(&reason, reply.data.data(), sizeof reason);
    return fail(reason != 0 ? static_cast<int>(reason) : ENOEXEC);
  }
  if (reply.code != PX_RESULT_DONE) return fail(errnoForResult(reply.code, EPROTO));
  uint64_t pid = 0;
  if (!reply.dataU64(0, &pid) || pid == 0) return fail(EPROTO);
  childStarted(pid);
  return static_cast<int64_t>(pid);
}

}  // namespace

}  // namespace pxc

extern "C" {

int64_t px_spawn(const char* path, char* const argv[], char* const envp[], int flags) {
  return pxc::spawn(path, argv, envp, flags, nullptr);
}

int64_t px_spawn_shared(const char* path, char* const argv[], char* const envp[], int flags,
                        const px_shm_id* shm) {
  if (shm == nullptr) return pxc::fail(EINVAL);
  return pxc::spawn(path, argv, envp, flags, shm);
}

}  // extern "C"
