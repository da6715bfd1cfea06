// Starting programs through the server. The server answers only "could not start", so the
// library looks at the program itself to give the caller a reason.
#include <errno.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "internal.h"
#include "posix_client.h"

extern char** environ;

namespace pxc {

namespace {

// errno for a program file that cannot be run, 0 when it looks runnable.
int checkProgram(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return errno;
  if (S_ISDIR(st.st_mode)) return EACCES;
  if (access(path.c_str(), X_OK) != 0) return errno;
  return 0;
}

// Why the server could not start `path`: the first reason a local look finds, else ENOEXEC.
int spawnFailure(const char* path, char* const envp[], int flags) {
  if (std::strchr(path, '/') != nullptr || (flags & PX_SPAWN_SEARCH_PATH) == 0) {
    int err = checkProgram(path);
    return err != 0 ? err : ENOEXEC;
  }
  // PATH of the environment handed to the child first (the server searches that one).
  const char* search = nullptr;
  for (char* const* e = envp; e != nullptr && *e != nullptr; ++e) {
    if (std::strncmp(*e, "PATH=", 5) == 0) search = *e + 5;
  }
  if (search == nullptr) search = getenv("PATH");
  if (search == nullptr) search = "/usr/local/bin:/usr/bin:/bin";
  int found = ENOENT;
  for (const char* dir = search;; ) {
    const char* end = std::strchr(dir, ':');
    // Built in a buffer: GCC 12 at -O2 misreads std::string assignments here (-Wrestrict).
    size_t span = end == nullptr ? std::strlen(dir) : static_cast<size_t>(end - dir);
    int length = static_cast<int>(span);
    char candidate[PATH_MAX];
    std::snprintf(candidate, sizeof candidate, "%.*s/%s", length > 0 ? length : 1,
                  length > 0 ? dir : ".", path);
    int err = checkProgram(candidate);
    if (err == 0) return ENOEXEC;        // a runnable candidate exists: it failed otherwise
    if (err == EACCES) found = EACCES;   // found, but not runnable
    if (end == nullptr) break;
    dir = end + 1;
  }
  return found;
}

int64_t spawn(const char* path, char* const argv[], char* const envp[], int flags,
              const px_shm_id* shm) {
  if (path == nullptr || path[0] == '\0') return fail(ENOENT);
  if (envp == nullptr) envp = environ;
  // The server resolves a relative path against its own working directory, not ours.
  std::string program = path;
  if (path[0] != '/' && std::strchr(path, '/') != nullptr) {
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) return fail(errno);
    program = std::string(cwd) + "/" + path;
  }
  FrameWriter req(shm != nullptr ? PX_CMD_SPAWN_SHARED : PX_CMD_SPAWN);
  req.str(program.c_str(), program.size());
  req.u32((flags & PX_SPAWN_SEARCH_PATH) != 0 ? PX_SPAWN_FLAG_SEARCH_PATH : 0);
  uint64_t argc = 0;
  while (argv != nullptr && argv[argc] != nullptr) ++argc;
  req.u64(argc);
  for (uint64_t i = 0; i < argc; ++i) req.str(argv[i]);
  uint64_t envc = 0;
  for (char* const* e = envp; *e != nullptr; ++e) envc += std::strchr(*e, '=') != nullptr;
  req.u64(envc);
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
  if (reply.code == PX_RESULT_FAILED) return fail(spawnFailure(program.c_str(), envp, flags));
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
