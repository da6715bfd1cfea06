// Whether posixctl may trust the runtime directory, and what it tells the user when it may not
// or when no server answers there. The library refuses such a directory on its own (EACCES);
// posixctl finds out why, so that the message names the problem.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "host/runtime_rule.h"
#include "host/service_socket.h"
#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

// What is wrong with a directory of status `st` for the caller; "" when nothing.
std::string directoryProblem(const struct stat& st) {
  using posix::host::DirFault;
  switch (posix::host::runtimeDirFault(st)) {
    case DirFault::kNone:
      return "";
    case DirFault::kSymlink:
      return "it is a symbolic link";
    case DirFault::kNotDirectory:
      return "it is not a directory";
    case DirFault::kForeignOwner:
      return "it belongs to uid " + std::to_string(st.st_uid) + ", not to you (uid " +
             std::to_string(geteuid()) + ")";
    case DirFault::kOpenToOthers:
      break;
  }
  char mode[8];
  snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
  return std::string("group or others may use it (mode ") + mode + ")";
}

// The uid of whoever listens on RT/chn/posix.service, or -1. Nothing is sent.
long listenerUid() {
  posix::host::Listener who;
  std::string path = std::string(px_runtime_dir()) + "/chn/" + PX_SERVICE_NAME;
  if (posix::host::probeListener(path, &who) != 0 || who.pid == 0) return -1;
  return static_cast<long>(who.uid);
}

std::string refusalText(const std::string& why) {
  return std::string("refusing runtime directory ") + px_runtime_dir() + ": " + why +
         " (remove it, or set POSIX_RUNTIME_DIR to a directory of your own)";
}

}  // namespace

std::string runtimeRefusal() {
  struct stat st;
  if (lstat(px_runtime_dir(), &st) != 0) return "";
  std::string why = directoryProblem(st);
  if (why.empty()) {
    long uid = listenerUid();
    if (uid >= 0 && static_cast<uid_t>(uid) != geteuid()) {
      why = "the server answering there runs as uid " + std::to_string(uid);
    }
  }
  return why.empty() ? "" : refusalText(why);
}

int openRuntimeDir(std::string* error) {
  int fd = open(px_runtime_dir(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  struct stat st;
  if (fd < 0 && errno == ELOOP) {
    *error = refusalText("it is a symbolic link");
    return -1;
  }
  if (fd < 0 || fstat(fd, &st) != 0) {
    *error = std::string(px_runtime_dir()) + ": " + strerror(errno);
    if (fd >= 0) close(fd);
    return -1;
  }
  std::string why = directoryProblem(st);
  if (!why.empty()) {
    *error = refusalText(why);
    close(fd);
    return -1;
  }
  return aboveStandardFds(fd);
}

int aboveStandardFds(int fd) { return posix::host::aboveStandardFds(fd); }

int callFailure(const std::string& what, int err) {
  std::string text = strerror(err);
  if (err == ENOENT || err == ECONNREFUSED) {
    text = std::string("no server answers on ") + px_runtime_dir() +
           "; start one with 'posixctl start'";
  } else if (err == ETIMEDOUT) {
    text = std::string("the server on ") + px_runtime_dir() + " does not answer (it hangs)";
  } else if (err == EACCES) {
    std::string refusal = runtimeRefusal();
    if (!refusal.empty()) text = refusal;
  }
  fprintf(stderr, "posixctl: %s: %s\n", what.c_str(), text.c_str());
  return kExitFailure;
}

}  // namespace posixctl
