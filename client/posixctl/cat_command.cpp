// posixctl cat [--] PATH...: reads each file through the server (opened by the server process,
// read through its description) and copies its bytes to standard output unchanged; "-" copies
// posixctl's own standard input. A file that cannot be opened or read is reported on standard
// error and the others are still copied; the exit code is then 1. A failed write to standard
// output ends the command with exit code 1.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "posix_client.h"
#include "posixctl.h"

namespace posixctl {

namespace {

const char kCatHelp[] =
    "usage: posixctl cat [--] PATH...\n"
    "Copies each file, opened and read through the server, to standard output; '-' copies\n"
    "standard input. Relative paths are taken from posixctl's working directory.\n";

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

// Why a copy stopped.
enum class Copy { kDone, kReadFailed, kWriteFailed };

// Copies what `readSome` delivers to standard output; *err is set when it fails.
template <class Read>
Copy copyOut(Read readSome, int* err) {
  static char buf[65536];
  for (;;) {
    ssize_t n = readSome(buf, sizeof buf);
    if (n == 0) return Copy::kDone;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      *err = errno;
      return Copy::kReadFailed;
    }
    *err = writeOut(buf, static_cast<size_t>(n));
    if (*err != 0) return Copy::kWriteFailed;
  }
}

// Copies one operand; answers how it ended (a failed open or read is reported here).
Copy catOne(const std::string& path) {
  int err = 0;
  Copy result;
  if (path == "-") {
    result = copyOut([](char* b, size_t n) { return read(STDIN_FILENO, b, n); }, &err);
  } else {
    int fd = px_open(path.c_str(), O_RDONLY, 0);
    if (fd < 0) {
      failure("cat " + path, errno);
      return Copy::kReadFailed;
    }
    result = copyOut([fd](char* b, size_t n) { return px_read(fd, b, n); }, &err);
    px_close(fd);
  }
  if (result == Copy::kReadFailed) failure("cat " + (path == "-" ? "standard input" : path), err);
  if (result == Copy::kWriteFailed) failure("cat: standard output", err);
  return result;
}

}  // namespace

int cmdCat(const std::vector<std::string>& args) {
  size_t first = 0;
  if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
    fputs(kCatHelp, stdout);
    return kExitOk;
  }
  if (!args.empty() && args[0] == "--") first = 1;
  for (size_t i = first; first == 0 && i < args.size(); ++i) {
    if (args[i].size() > 1 && args[i][0] == '-') {
      return usage("cat: unknown option '" + args[i] + "' (use -- before a PATH that starts with -)");
    }
  }
  if (first >= args.size()) return usage("cat needs at least one PATH ('-' for standard input)");
  // Without a server every open would fail with the socket's error (ENOENT), which reads as
  // if the files were missing.
  bool files = false;
  for (size_t i = first; i < args.size(); ++i) files = files || args[i] != "-";
  int err = 0;
  if (files && answeringServer(&err) == 0) return callFailure("cat", err);
  int rc = kExitOk;
  for (size_t i = first; i < args.size(); ++i) {
    Copy result = catOne(args[i]);
    if (result != Copy::kDone) rc = kExitFailure;
    if (result == Copy::kWriteFailed) break;  // nothing more can be written
  }
  return rc;
}

}  // namespace posixctl
