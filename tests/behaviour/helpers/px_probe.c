// px_probe: a program the behaviour tests start through the server. It runs its arguments as
// a list of steps, in order, and prints one line per result on standard output (line
// buffered, so a test reads each line through a pipe while the probe still runs). FD is a
// descriptor the probe inherited from its spawner.
//
//   ready | ppid | pgid        connects / asks the server; prints "ready" / "ppid N" / "pgid N"
//   exit N | raise N | sleep MS   ends with code N / raises host signal N / sleeps
//   sigwait N                  waits for N signals; prints "signal S code C status X pid P" each
//   spawn PATH [ARG...] [--]   starts a child (with the probe's standard files, the library's
//                              default); prints "spawned PID"
//   wait                       waits for the last child spawned; prints "child PID exit CODE"
//   spawnexit OUT PATH [ARG...] [--]
//                              asks for a start of PATH with OUT as its standard output on a
//                              link of its own (after one round trip, so that the server knows
//                              the link) and ends at once, without waiting for the answer
//   hold                       keeps a signal wait in a second thread; prints "holding"
//   shm TEXT                   prints "shm <the spawner's shared memory>", then writes TEXT in it
//   env NAME                   prints "env NAME=VALUE" or "env NAME unset"
//   print TEXT | eprint TEXT   writes TEXT to standard output / standard error
//   cat                        copies standard input to standard output
//   fds                        prints "fd N kind K" per known descriptor (the first 64),
//                              "fds count COUNT", then "fds done"
//   find PATH TEXT             opens PATH through the server and prints "found <the rest of
//                              the first line from TEXT on>" or "found none"
//   open PATH                  opens PATH for reading through the server; prints "opened FD"
//   write FD TEXT              prints "wrote N"
//   readn FD N                 reads until N bytes or end-of-file; prints "got <bytes>"
//   close FD                   prints "closed FD"
//   records FD COUNT TAG       writes COUNT records of 5..4096 bytes, each a header (TAG, u16
//                              payload length) and the payload filled with TAG; "records done"
//   hog WHAT                   makes pipes, channels (pipes of the process service), sockets or
//                              opens the file WHAT until refused (at most 5000); prints
//                              "hog MADE <reason>"
//   channels                   makes a pipe of the process service, writes "x" through it and
//                              keeps both handles; prints "channels"
//
// A failing step prints "error STEP: <reason>" and ends the probe with exit code 99.

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "posix/posix_service.h"
#include "posix/wire.h"
#include "posix_client.h"

extern char** environ;

static char** words;         // argv
static int wordCount, next;  // argc; the index of the next word
static const char* step;     // the step running, for the error line
static char** a;             // its arguments
static long long child = -1; // the last child spawned
static char buf[65536];

static void die(void) {
  printf("error %s: %s\n", step, strerror(errno));
  exit(99);
}

// Answers `v`; a negative one (a failed call) ends the probe.
static long long must(long long v) {
  if (v < 0) die();
  return v;
}

// Argument k as a number.
static long long num(int k) {
  char* end = NULL;
  long long v = strtoll(a[k], &end, 10);
  if (*a[k] == '\0' || *end != '\0') {
    errno = EINVAL;
    die();
  }
  return v;
}

static void writeAll(int fd, const void* p, size_t n) {
  if (px_write(fd, p, n) != (ssize_t)n) die();
}

// Appends `n` bytes to the frame being built in buf; a string is its u32 length and its bytes.
static size_t frameLength;
static void put(const void* p, size_t n) {
  memcpy(buf + frameLength, p, n);
  frameLength += n;
}
static void putString(const char* text) {
  uint32_t length = (uint32_t)strlen(text);
  put(&length, sizeof length);
  put(text, length);
}

// Sends the frame in buf as request `code` on `link`, and starts the next one.
static void sendFrame(int link, uint32_t code) {
  px_frame_header header = {PX_FRAME_REQUEST, code, code, (uint32_t)(frameLength - sizeof header), 0};
  memcpy(buf, &header, sizeof header);
  if (send(link, buf, frameLength, 0) != (ssize_t)frameLength) die();
  frameLength = sizeof header;
}

static void* signalWaiter(void* arg) {
  int sig = 0;
  px_sigwait(&sig, NULL);
  return arg;
}

// Takes the step's `n` arguments (-1: the rest, up to a "--" that is dropped) as `a`.
static int take(int n) {
  a = words + next;
  if (n < 0) {
    for (n = 0; next + n < wordCount && strcmp(words[next + n], "--") != 0; ++n) {
    }
    words[next + n] = NULL;  // ends the child's list (argv[argc] is NULL already)
    ++n;
  } else if (next + n > wordCount) {
    errno = EINVAL;
    die();
  }
  next += n;
  return 1;
}

#define STEP(name, n) else if (strcmp(step, name) == 0 && take(n))

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  words = argv;
  wordCount = argc;
  for (next = 1; next < argc;) {
    step = argv[next++];
    if (0) {
    }
    STEP("ready", 0) {
      must(px_init());
      printf("ready\n");
    }
    STEP("ppid", 0) printf("ppid %lld\n", must(px_getppid()));
    STEP("pgid", 0) printf("pgid %lld\n", must(px_getpgid(0)));
    STEP("exit", 1) exit((int)num(0));
    STEP("raise", 1) raise((int)num(0));
    STEP("sleep", 1) {
      struct timespec ts = {(time_t)(num(0) / 1000), (long)(num(0) % 1000) * 1000000L};
      nanosleep(&ts, NULL);
    }
    STEP("sigwait", 1) for (long long k = num(0); k > 0; --k) {
      int sig = 0;
      px_siginfo info;
      must(px_sigwait(&sig, &info));
      printf("signal %d code %u status %u pid %llu\n", sig, info.code, info.exit_code,
             (unsigned long long)info.pid);
    }
    STEP("spawn", -1) {
      errno = EINVAL;  // no program named
      child = must(a[0] != NULL ? px_spawn(a[0], a, environ, PX_SPAWN_SEARCH_PATH) : -1);
      printf("spawned %lld\n", child);
    }
    STEP("spawnexit", -1) {
      struct sockaddr_un addr = {.sun_family = AF_UNIX};
      snprintf(addr.sun_path, sizeof addr.sun_path, "%s/chn/posix.service", getenv("POSIX_RUNTIME_DIR"));
      int link = socket(AF_UNIX, SOCK_SEQPACKET, 0);
      if (a[1] == NULL || connect(link, (struct sockaddr*)&addr, sizeof addr) != 0) die();
      frameLength = sizeof(px_frame_header);
      sendFrame(link, PX_CMD_GET_PARENT_ID);
      if (recv(link, buf, sizeof buf, 0) <= 0) die();
      uint32_t none = 0;
      uint64_t argc = 0, envc = 1;
      while (a[1 + argc] != NULL) ++argc;
      putString(a[1]);
      put(&none, sizeof none);
      put(&argc, sizeof argc);
      for (uint64_t k = 1; k <= argc; ++k) putString(a[k]);
      put(&envc, sizeof envc);
      putString("POSIX_STDOUT");
      putString(a[0]);
      put(&none, sizeof none);
      sendFrame(link, PX_CMD_SPAWN);
      _exit(0);
    }
    STEP("wait", 0) {
      int status = 0;
      if (px_waitpid(child, &status, 0) != child) die();
      printf("child %lld exit %d\n", child, status);
    }
    STEP("hold", 0) {
      pthread_t t;
      if (pthread_create(&t, NULL, signalWaiter, NULL) != 0) die();
      printf("holding\n");
    }
    STEP("shm", 1) {
      px_shm_id id;
      must(px_get_shared_memory(&id));
      char* mem = px_shm_map(&id);
      if (mem == NULL) die();
      printf("shm %.*s\n", (int)strnlen(mem, id.size), mem);
      strncpy(mem, a[0], id.size);
      px_shm_unmap(mem, &id);
    }
    STEP("env", 1) {
      if (getenv(a[0]) == NULL) printf("env %s unset\n", a[0]);
      else printf("env %s=%s\n", a[0], getenv(a[0]));
    }
    STEP("print", 1) printf("%s\n", a[0]);
    STEP("eprint", 1) fprintf(stderr, "%s\n", a[0]);
    STEP("cat", 0) for (ssize_t n; (n = read(0, buf, sizeof buf)) > 0;) {
      if (write(1, buf, (size_t)n) != n) die();
    }
    STEP("fds", 0) {
      px_fd_info list[64];
      int n = (int)must(px_fd_list(list, 64));
      for (int k = 0; k < n && k < 64; ++k) printf("fd %d kind %d\n", list[k].fd, list[k].kind);
      printf("fds count %d\nfds done\n", n);
    }
    STEP("find", 2) {
      int fd = (int)must(px_open(a[0], O_RDONLY, 0));
      size_t got = 0;
      for (ssize_t n = 1; n > 0 && got < sizeof buf - 1; got += (size_t)n) {
        n = must(px_read(fd, buf + got, sizeof buf - 1 - got));
      }
      buf[got] = '\0';
      px_close(fd);
      char* at = strstr(buf, a[1]);
      printf("found %.*s\n", at != NULL ? (int)strcspn(at, "\n") : 4, at != NULL ? at : "none");
    }
    STEP("open", 1) printf("opened %lld\n", must(px_open(a[0], O_RDONLY, 0)));
    STEP("write", 2) {
      writeAll((int)num(0), a[1], strlen(a[1]));
      printf("wrote %zu\n", strlen(a[1]));
    }
    STEP("readn", 2) {
      size_t want = (size_t)num(1), got = 0;
      for (ssize_t n = 1; got < want && got < sizeof buf && n > 0; got += (size_t)n) {
        n = must(px_read((int)num(0), buf + got, want - got));
      }
      printf("got %.*s\n", (int)got, buf);
    }
    STEP("close", 1) {
      must(px_close((int)num(0)));
      printf("closed %s\n", a[0]);
    }
    STEP("records", 3) {
      for (long long k = 0, count = num(1); k < count; ++k) {
        size_t size = 5 + (size_t)((k * 1237) % 4092);
        memset(buf, a[2][0], size);
        buf[1] = (char)((size - 3) & 0xFF);
        buf[2] = (char)((size - 3) >> 8);
        writeAll((int)num(0), buf, size);
      }
      printf("records done\n");
    }
    STEP("hog", 1) {
      long long made = 0;
      int fds[2];
      px_channel* ends[2];
      for (int rc = 0; rc >= 0 && made < 5000; made += rc >= 0) {
        if (strcmp(a[0], "pipe") == 0) rc = px_pipe(fds);
        else if (strcmp(a[0], "channels") == 0) rc = px_pipe_channels(ends);
        else if (strcmp(a[0], "socket") == 0) rc = px_socket();
        else rc = px_open(a[0], O_RDONLY, 0);
      }
      printf("hog %lld %s\n", made, strerror(errno));
    }
    STEP("channels", 0) {
      px_channel* ends[2];
      if (px_pipe_channels(ends) != 0 || px_channel_write(ends[1], "x", 1) != 1) die();
      printf("channels\n");
    }
    else {
      errno = EINVAL;
      die();
    }
  }
  return 0;
}
