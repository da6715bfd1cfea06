// Whether posixctl may trust the runtime directory, and what it tells the user when it may not
// or when no server answers there. The library refuses such a directory on its own (EACCES);
// posixctl finds out why, so that the message names the problem.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

// What is wrong with a directory of status `st` for the caller; "" when nothing.
std::string directoryProblem(const struct stat& st) {
  if (S_ISLNK(st.st_mode)) return "it is a symbolic link";
  if (!S_ISDIR(st.st_mode)) return "it is not a directory";
  if (st.st_uid != geteuid()) {
    return "it belongs to uid " + std::to_string(st.st_uid) + ", not to you (uid " +
           std::to_string(geteuid()) + ")";
  }
  if ((st.st_mode & 077) != 0) {
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    return std::string("group or others may use it (mode ") + mode + ")";
  }
  return "";
}

// The uid of whoever listens on RT/chn/posix.service, or -1. Nothing is sent.
long listenerUid() {
  std::string path = std::string(px_runtime_dir()) + "/chn/" + PX_SERVICE_NAME;
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return -1;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  long uid = -1;
  struct ucred cred;
  socklen_t len = sizeof cred;
  if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
    uid = static_cast<long>(cred.uid);
  }
  close(fd);
  return uid;
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

int aboveStandardFds(int fd) {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  int err = errno;
  close(fd);
  errno = err;
  return moved;
}

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
