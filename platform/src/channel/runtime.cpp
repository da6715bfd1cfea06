// The instance's runtime directory and the list of files this process made in it.
#include "platform/runtime.h"

#include <dirent.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "host/runtime_rule.h"
#include "host/service_socket.h"

namespace {

// Never destroyed: platform threads (a close queue stopping a multiplex, the shut-down thread)
// may still add or remove files while the process runs its exit-time destructors.
std::mutex& g_ownedMutex = *new std::mutex;
std::vector<std::string>& g_owned = *new std::vector<std::string>;  // guarded by g_ownedMutex
bool g_ownedRemoved = false;  // guarded by g_ownedMutex: the shut-down has removed the files

void removeListedLocked() {
  for (const std::string& file : g_owned) ::unlink(file.c_str());
  g_owned.clear();
}

void listLocked(const std::string& file) {
  if (g_ownedRemoved) {
    ::unlink(file.c_str());  // made while shutting down: it goes at once
    return;
  }
  if (std::find(g_owned.begin(), g_owned.end(), file) == g_owned.end()) g_owned.push_back(file);
}

// Makes every missing parent of `path` (not `path` itself) with mode 0700.
void makeParents(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    std::string parent = path.substr(0, slash);
    if (::mkdir(parent.c_str(), 0700) != 0 && errno != EEXIST) return;
  }
}

// A socket made this recently may belong to a server that is starting now and has bound it
// but not yet called listen(): it is not taken for stale.
constexpr int64_t kFreshMs = 1000;

// Milliseconds since the status of the file `st` last changed (for a socket: since its bind).
int64_t ageMs(const struct stat& st) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return (now.tv_sec - st.st_ctim.tv_sec) * 1000 + (now.tv_nsec - st.st_ctim.tv_nsec) / 1000000;
}

std::atomic<void (*)(const std::string&)> g_nameObserver{nullptr};

bool fail(std::string* why, const std::string& text) {
  if (why) *why = text;
  return false;
}

}  // namespace

namespace Runtime {

std::string dir() { return posix::host::runtimeDirectory(); }

std::string path(const std::string& relative) { return dir() + "/" + relative; }

bool prepare(std::string* why) {
  std::string rt = dir();
  // Every channel and multiplex checks the tree when it is made: an existing tree costs one
  // lstat per directory, and only what is missing is made. lstat, not stat: a symlink planted
  // at RT by someone else must not redirect the instance.
  struct stat st;
  if (::lstat(rt.c_str(), &st) != 0) {
    makeParents(rt);
    if (::mkdir(rt.c_str(), 0700) == 0) {
      ::chmod(rt.c_str(), 0700);  // the umask must not leave us without access
    } else if (errno != EEXIST) {
      return fail(why, "cannot create runtime directory " + rt + ": " + std::strerror(errno));
    }
    if (::lstat(rt.c_str(), &st) != 0)
      return fail(why, "cannot inspect runtime directory " + rt + ": " + std::strerror(errno));
  }
  switch (posix::host::runtimeDirFault(st)) {
    case posix::host::DirFault::kNone:
      break;
    case posix::host::DirFault::kSymlink:
    case posix::host::DirFault::kNotDirectory:
      return fail(why, "runtime directory " + rt + " is not a directory");
    case posix::host::DirFault::kForeignOwner:
      return fail(why, "runtime directory " + rt + " is not owned by the current user");
    case posix::host::DirFault::kOpenToOthers:
      return fail(why, "runtime directory " + rt + " is accessible by group or others");
  }
  for (const char* sub : {"chn", "dev", "root", "shm"}) {
    std::string p = rt + "/" + sub;
    if (::lstat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) continue;
    if (::mkdir(p.c_str(), 0700) != 0 && errno != EEXIST)
      return fail(why, "cannot create " + p + ": " + std::strerror(errno));
    if (::lstat(p.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
      return fail(why, p + " is not a directory");
  }
  return true;
}

long listener(const std::string& path) {
  posix::host::Listener who;
  int err = posix::host::probeListener(path, &who);
  if (err == EAGAIN) return -1;  // a full backlog: someone listens
  if (err != 0) return 0;
  return who.pid != 0 ? who.pid : -1;
}

void removeStaleChannels() {
  std::string chn = path("chn");
  DIR* dir = ::opendir(chn.c_str());
  if (!dir) return;
  std::vector<std::string> sockets, names;
  while (dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::string file = chn + "/" + entry->d_name;
    struct stat st;
    if (::lstat(file.c_str(), &st) != 0) continue;
    if (S_ISSOCK(st.st_mode) && ageMs(st) >= kFreshMs) sockets.push_back(file);
    if (S_ISLNK(st.st_mode)) names.push_back(file);
  }
  ::closedir(dir);
  for (const std::string& file : sockets) {
    if (listener(file) == 0) ::unlink(file.c_str());
  }
  struct stat st;
  for (const std::string& file : names) {
    if (::stat(file.c_str(), &st) != 0 && errno == ENOENT) ::unlink(file.c_str());
  }
}

void onNameClaimed(void (*observer)(const std::string& namePath)) { g_nameObserver = observer; }

void nameClaimed(const std::string& namePath) {
  if (auto observer = g_nameObserver.load()) observer(namePath);
}

void ownFile(const std::string& file) {
  std::lock_guard lock(g_ownedMutex);
  listLocked(file);
}

MakingFile::MakingFile() { g_ownedMutex.lock(); }
MakingFile::~MakingFile() { g_ownedMutex.unlock(); }
bool MakingFile::allowed() const { return !g_ownedRemoved; }
void MakingFile::own(const std::string& file) { listLocked(file); }

void disownFile(const std::string& file) {
  std::lock_guard lock(g_ownedMutex);
  auto it = std::find(g_owned.begin(), g_owned.end(), file);
  if (it != g_owned.end()) g_owned.erase(it);
}

void removeOwnedFiles() {
  std::lock_guard lock(g_ownedMutex);
  removeListedLocked();
}

void shutDown() {
  // Runs on the shut-down thread: it only unlinks what is listed, allocating nothing.
  std::lock_guard lock(g_ownedMutex);
  removeListedLocked();
  g_ownedRemoved = true;
}

}  // namespace Runtime
