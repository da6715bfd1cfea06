// posixctl cat PATH...: reads each file through the server (opened by the server process, read
// through its description) and copies its bytes to standard output unchanged. A file that
// cannot be opened or read is reported on standard error and the others are still copied;
// the exit code is then 1.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

// Writes all of `n` bytes to standard output; 0 or errno.
int writeOut(const char* p, size_t n) {
  while (n > 0) {
    ssize_t put = write(STDOUT_FILENO, p, n);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return errno;
    p += put;
    n -= static_cast<size_t>(put);
  }
  return 0;
}

// Copies one file; an exit code.
int catOne(const std::string& path) {
  static char buf[65536];
  int fd = px_open(path.c_str(), O_RDONLY, 0);
  if (fd < 0) return failure("cat " + path, errno);
  int rc = kExitOk;
  for (;;) {
    ssize_t n = px_read(fd, buf, sizeof buf);
    if (n == 0) break;
    if (n < 0) {
      rc = failure("cat " + path, errno);
      break;
    }
    int err = writeOut(buf, static_cast<size_t>(n));
    if (err != 0) {
      rc = failure("cat: standard output", err);
      break;
    }
  }
  px_close(fd);
  return rc;
}

}  // namespace

int cmdCat(const std::vector<std::string>& args) {
  if (args.empty()) return usage("cat needs at least one PATH");
  // Without a server every open would fail with the socket's error (ENOENT), which reads as
  // if the files were missing.
  if (answeringServer() == 0) {
    return failure(std::string("cat: no server answers on ") + px_runtime_dir(), ECONNREFUSED);
  }
  int rc = kExitOk;
  for (const std::string& path : args) {
    if (catOne(path) != kExitOk) rc = kExitFailure;
  }
  return rc;
}

}  // namespace posixctl
