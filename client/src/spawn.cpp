// Starting programs through the server. By default a child gets the caller's working directory
// and standard files: the library names them to the server, which opens them again by path.
#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
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

// The pairs for each of the working directory and the standard files that envp does not name
// itself: the caller's own, named through /proc so that a pipe, terminal or device is the same
// file. A closed descriptor is named empty (the child starts with it closed); a socket cannot
// be opened by path and is left out (the server's default stands).
Pairs callerDefaults(char* const envp[]) {
  static const char* const kNames[] = {PX_ENV_STDIN, PX_ENV_STDOUT, PX_ENV_STDERR, PX_ENV_CWD};
  bool named[4] = {false, false, false, false};
  for (char* const* e = envp; *e != nullptr; ++e) {
    for (int k = 0; k < 4; ++k) {
      size_t n = std::strlen(kNames[k]);
      if (std::strncmp(*e, kNames[k], n) == 0 && (*e)[n] == '=') named[k] = true;
    }
  }
  Pairs pairs;
  std::string self = "/proc/" + std::to_string(getpid());
  for (int fd = 0; fd < 3; ++fd) {
    struct stat st;
    if (named[fd]) continue;
    if (fstat(fd, &st) != 0) {
      pairs.emplace_back(kNames[fd], "");
    } else if (!S_ISSOCK(st.st_mode)) {
      pairs.emplace_back(kNames[fd], self + "/fd/" + std::to_string(fd));
    }
  }
  if (!named[3]) {
    // A directory that was removed has no path; /proc still leads to it.
    char cwd[PATH_MAX];
    pairs.emplace_back(kNames[3], getcwd(cwd, sizeof cwd) != nullptr ? cwd : self + "/cwd");
  }
  return pairs;
}

int64_t spawn(const char* path, char* const argv[], char* const envp[], int flags,
              const px_shm_id* shm) {
  if (path == nullptr || path[0] == '\0') return fail(ENOENT);
  if (envp == nullptr) envp = environ;
  Pairs defaults = callerDefaults(envp);
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
  req.u32(0);  // start options: none defined
  if (shm != nullptr) {
    req.u64(shm->id);
    req.u64(shm->size);
  }
  Reply reply;
  int err = transact(req, &reply);
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
