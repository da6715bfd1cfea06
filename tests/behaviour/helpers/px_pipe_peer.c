/*
 * px_pipe_peer: a program the pipe tests start through the server. It uses the descriptors
 * it inherited from its spawner, running its arguments as steps in order and printing one
 * line per result on standard output (flushed at once):
 *
 *   fds                       prints "fd N kind K" per known descriptor, then "fds done"
 *   write FD TEXT             writes TEXT; prints "wrote N"
 *   readn FD N                reads until N bytes or end-of-file; prints "got <bytes>"
 *   drain FD                  reads to end-of-file; prints "drained N"
 *   close FD                  prints "closed FD"
 *   records FD COUNT TAG      writes COUNT records (sizes 5..4096 by a fixed rule), each a
 *                             header (tag byte, u16 payload length) and the payload filled
 *                             with the tag; prints "records done"
 *   block-read FD             prints "reading", then reads (the pipe is empty: it blocks)
 *   block-write FD            prints "writing", then writes 4096 bytes (the pipe is full)
 *   channels                  makes a pipe of the process service, writes "x" through it
 *                             and keeps both handles; prints "channels"
 *   sleep MS                  sleeps
 *
 * A failing step prints "error STEP: <reason>" and ends the peer with exit code 99.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "posix_client.h"

static void die(const char* step) {
  printf("error %s: %s\n", step, strerror(errno));
  fflush(stdout);
  exit(99);
}

static long long number(const char* step, int argc, char** argv, int* i) {
  char* end = NULL;
  if (*i >= argc || argv[*i][0] == '\0') {
    errno = EINVAL;
    die(step);
  }
  long long v = strtoll(argv[*i], &end, 10);
  if (*end != '\0') {
    errno = EINVAL;
    die(step);
  }
  ++*i;
  return v;
}

/* The size of record k: spread over 5..4096 bytes, header included. */
static size_t recordSize(long long k) { return 5 + (size_t)((k * 1237) % 4092); }

static void writeAll(const char* step, int fd, const char* p, size_t n) {
  ssize_t put = px_write(fd, p, n);
  if (put != (ssize_t)n) die(step);
}

int main(int argc, char** argv) {
  static char buf[65536];
  int i = 1;
  while (i < argc) {
    const char* step = argv[i++];
    if (strcmp(step, "fds") == 0) {
      px_fd_info list[64];
      int n = px_fd_list(list, 64);
      if (n < 0) die(step);
      for (int k = 0; k < n && k < 64; ++k) printf("fd %d kind %d\n", list[k].fd, list[k].kind);
      printf("fds done\n");
    } else if (strcmp(step, "write") == 0) {
      int fd = (int)number(step, argc, argv, &i);
      const char* text = i < argc ? argv[i++] : "";
      writeAll(step, fd, text, strlen(text));
      printf("wrote %zu\n", strlen(text));
    } else if (strcmp(step, "readn") == 0) {
      int fd = (int)number(step, argc, argv, &i);
      size_t want = (size_t)number(step, argc, argv, &i);
      size_t got = 0;
      while (got < want && got < sizeof buf) {
        ssize_t n = px_read(fd, buf + got, want - got);
        if (n < 0) die(step);
        if (n == 0) break;
        got += (size_t)n;
      }
      printf("got %.*s\n", (int)got, buf);
    } else if (strcmp(step, "drain") == 0) {
      int fd = (int)number(step, argc, argv, &i);
      long long total = 0;
      ssize_t n;
      while ((n = px_read(fd, buf, sizeof buf)) > 0) total += n;
      if (n < 0) die(step);
      printf("drained %lld\n", total);
    } else if (strcmp(step, "close") == 0) {
      int fd = (int)number(step, argc, argv, &i);
      if (px_close(fd) != 0) die(step);
      printf("closed %d\n", fd);
    } else if (strcmp(step, "records") == 0) {
      int fd = (int)number(step, argc, argv, &i);
      long long count = number(step, argc, argv, &i);
      char tag = i < argc ? argv[i++][0] : 'x';
      for (long long k = 0; k < count; ++k) {
        size_t size = recordSize(k);
        buf[0] = tag;
        buf[1] = (char)((size - 3) & 0xFF);
        buf[2] = (char)((size - 3) >> 8);
        memset(buf + 3, tag, size - 3);
        writeAll(step, fd, buf, size);
      }
      printf("records done\n");
    } else if (strcmp(step, "block-read") == 0) {
      int fd = (int)number(step, argc, argv, &i);
      printf("reading\n");
      fflush(stdout);
      if (px_read(fd, buf, 1) < 0) die(step);
      printf("read returned\n");
    } else if (strcmp(step, "block-write") == 0) {
      int fd = (int)number(step, argc, argv, &i);
      printf("writing\n");
      fflush(stdout);
      memset(buf, 'w', 4096);
      writeAll(step, fd, buf, 4096);
      printf("write returned\n");
    } else if (strcmp(step, "channels") == 0) {
      px_channel* ends[2];
      if (px_pipe_channels(ends) != 0 || px_channel_write(ends[1], "x", 1) != 1) die(step);
      printf("channels\n");
    } else if (strcmp(step, "sleep") == 0) {
      long long ms = number(step, argc, argv, &i);
      struct timespec ts = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
      nanosleep(&ts, NULL);
    } else {
      errno = EINVAL;
      die(step);
    }
    fflush(stdout);
  }
  return 0;
}
