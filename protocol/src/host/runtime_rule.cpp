#include "host/runtime_rule.h"

#include <unistd.h>

#include <cstdlib>

namespace posix::host {

namespace {

const char* envValue(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

}  // namespace

std::string runtimeDirectory() {
  std::string dir;
  if (const char* own = envValue("POSIX_RUNTIME_DIR")) {
    dir = own;
  } else if (const char* xdg = envValue("XDG_RUNTIME_DIR")) {
    dir = std::string(xdg) + "/posix";
  } else {
    // The effective uid, the one that owns what the process makes and that every check below
    // (the directory's owner, the peer of a link) compares with: a directory named after it is
    // one this process can own. Without a setuid bit the two uids are the same anyway; with one,
    // /tmp/posix-<real uid> would be a directory this process could neither make its own nor pass.
    dir = "/tmp/posix-" + std::to_string(::geteuid());
  }
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

DirFault runtimeDirFault(const struct stat& st) {
  if (S_ISLNK(st.st_mode)) return DirFault::kSymlink;
  if (!S_ISDIR(st.st_mode)) return DirFault::kNotDirectory;
  if (st.st_uid != ::geteuid()) return DirFault::kForeignOwner;
  if ((st.st_mode & 077) != 0) return DirFault::kOpenToOthers;
  return DirFault::kNone;
}

}  // namespace posix::host
