// The platform's file system as the hosted platform sees it: "/" is RT/root/, and binding a
// name in a directory makes a symlink there.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/devnode.h"
#include "platform/error.h"
#include "platform/runtime.h"

namespace {
std::atomic<uint64_t> g_tempSerial{0};  // keeps concurrent binds off each other's temp names
}

namespace Services::Filesystem::Client {

Ref<Directory> Directory::open(const char* path, uint32_t /*flags*/) {
  if (!path || path[0] != '/') {
    Error::set(EINVAL);
    return nullptr;
  }
  std::string host = Runtime::path("root") + path;
  if (host.back() != '/') host += '/';
  struct stat st;
  if (::stat(host.c_str(), &st) != 0) {
    Error::set(errno);
    return nullptr;
  }
  if (!S_ISDIR(st.st_mode)) {
    Error::set(ENOTDIR);
    return nullptr;
  }
  return new Directory(String::create(host.c_str()));
}

bool Directory::bind(const Ref<String>& name, const Ref<String>& target) {
  if (!name || !target || name->length() == 0 || std::strchr(name->c_str(), '/') ||
      name->equals(".") || name->equals("..")) {
    Error::set(EINVAL);
    return false;
  }
  std::string link = std::string(hostPath_->c_str()) + name->c_str();
  // Made aside and renamed over the old entry, so the name never disappears in between.
  std::string temp = link + ".tmp." + std::to_string(::getpid()) + "." +
                     std::to_string(g_tempSerial.fetch_add(1, std::memory_order_relaxed));
  if (::symlink(target->c_str(), temp.c_str()) != 0) {
    Error::set(errno);
    return false;
  }
  if (::rename(temp.c_str(), link.c_str()) != 0) {
    Error::set(errno);
    ::unlink(temp.c_str());
    return false;
  }
  Runtime::ownFile(link);
  return true;
}

}  // namespace Services::Filesystem::Client
