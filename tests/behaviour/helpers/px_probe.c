/*
 * px_probe: a program the behaviour tests start through the server. It runs its arguments as
 * a list of steps, in order, and prints one line per result on standard output (flushed at
 * once, so a test can read it through a pipe while the probe still runs):
 *
 *   ready                 connect to the server; prints "ready"
 *   ppid                  prints "ppid N"
 *   pgid [PID]            prints "pgid N" (own group without PID)
 *   exit N                ends with exit code N
 *   raise N               raises host signal N (the server reports 128 + N)
 *   sleep MS              sleeps
 *   sigwait N             waits for N signals; prints "signal S code C status X pid P" each
 *   kill PID SIG          prints "kill ok" or fails
 *   spawn PATH [ARG...] --         starts a child (with the probe's standard output and
 *                                  error); prints "spawned PID"
 *   spawn-wait PATH [ARG...] [--]  starts a child and waits; prints "child PID exit CODE"
 *   hold PATH [ARG...] [--]        starts a child, keeps a signal wait in one thread and a
 *                                  blocking wait for the child in another; prints "holding PID"
 *   shm TEXT              reads the shared memory from its spawner, prints "shm <contents>",
 *                         then writes TEXT into it
 *   env NAME              prints "env NAME=VALUE" or "env NAME unset"
 *   print TEXT / eprint TEXT       writes TEXT to standard output / standard error
 *   cat                   copies standard input to standard output
 *
 * A failing step prints "error STEP: <reason>" and ends the probe with exit code 99.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "posix_client.h"

static void out(const char* fmt, long long a, long long b, long long c, long long d) {
  printf(fmt, a, b, c, d);
  fflush(stdout);
}

static void die(const char* step) {
  printf("error %s: %s\n", step, strerror(errno));
  fflush(stdout);
  exit(99);
}

static long long number(const char* step, const char* text) {
  char* end = NULL;
  if (text == NULL) {
    errno = EINVAL;
    die(step);
  }
  long long v = strtoll(text, &end, 10);
  if (*text == '\0' || *end != '\0') {
    errno = EINVAL;
    die(step);
  }
  return v;
}

/* Collects argv[*i..] up to "--" or the end into a NULL-terminated list (in place). */
static char** childArgs(int argc, char** argv, int* i) {
  char** list = calloc((size_t)argc + 1, sizeof *list);
  int n = 0;
  while (*i < argc && strcmp(argv[*i], "--") != 0) list[n++] = argv[(*i)++];
  if (*i < argc) ++*i; /* skip "--" */
  list[n] = NULL;
  return list;
}

/* The probe's environment plus POSIX_STDOUT/POSIX_STDERR naming its own standard output and
 * error, so that a child's lines reach the same reader. */
static char** childEnv(void) {
  extern char** environ;
  size_t n = 0;
  while (environ[n] != NULL) ++n;
  char** env = calloc(n + 3, sizeof *env);
  size_t k = 0;
  for (size_t j = 0; j < n; ++j) {
    if (strncmp(environ[j], "POSIX_STDOUT=", 13) != 0 &&
        strncmp(environ[j], "POSIX_STDERR=", 13) != 0) {
      env[k++] = environ[j];
    }
  }
  static char outEntry[64], errEntry[64];
  snprintf(outEntry, sizeof outEntry, "POSIX_STDOUT=/proc/%d/fd/1", (int)getpid());
  snprintf(errEntry, sizeof errEntry, "POSIX_STDERR=/proc/%d/fd/2", (int)getpid());
  env[k++] = outEntry;
  env[k++] = errEntry;
  env[k] = NULL;
  return env;
}

static void* signalWaiter(void* arg) {
  (void)arg;
  int sig = 0;
  px_sigwait(&sig, NULL);
  return NULL;
}

int main(int argc, char** argv) {
  int i = 1;
  while (i < argc) {
    const char* step = argv[i++];
    if (strcmp(step, "ready") == 0) {
      if (px_init() != 0) die(step);
      out("ready\n", 0, 0, 0, 0);
    } else if (strcmp(step, "ppid") == 0) {
      long long p = px_getppid();
      if (p < 0) die(step);
      out("ppid %lld\n", p, 0, 0, 0);
    } else if (strcmp(step, "pgid") == 0) {
      long long pid = 0;
      if (i < argc && (argv[i][0] >= '0' && argv[i][0] <= '9')) pid = number(step, argv[i++]);
      long long g = px_getpgid(pid);
      if (g < 0) die(step);
      out("pgid %lld\n", g, 0, 0, 0);
    } else if (strcmp(step, "exit") == 0) {
      exit((int)number(step, argv[i]));
    } else if (strcmp(step, "raise") == 0) {
      raise((int)number(step, argv[i++]));
    } else if (strcmp(step, "sleep") == 0) {
      long long ms = number(step, i < argc ? argv[i++] : NULL);
      struct timespec ts = {(time_t)(ms / 1000), (long)(ms % 1000) * 1000000L};
      nanosleep(&ts, NULL);
    } else if (strcmp(step, "sigwait") == 0) {
      long long n = number(step, i < argc ? argv[i++] : NULL);
      for (long long k = 0; k < n; ++k) {
        int sig = 0;
        px_siginfo info;
        if (px_sigwait(&sig, &info) != 0) die(step);
        printf("signal %d code %u status %u pid %llu\n", sig, info.code, info.exit_code,
               (unsigned long long)info.pid);
        fflush(stdout);
      }
    } else if (strcmp(step, "kill") == 0) {
      long long pid = number(step, i < argc ? argv[i++] : NULL);
      long long sig = number(step, i < argc ? argv[i++] : NULL);
      if (px_kill(pid, (int)sig) != 0) die(step);
      out("kill ok\n", 0, 0, 0, 0);
    } else if (strcmp(step, "spawn") == 0 || strcmp(step, "spawn-wait") == 0 ||
               strcmp(step, "hold") == 0) {
      char** args = childArgs(argc, argv, &i);
      if (args[0] == NULL) {
        errno = EINVAL;
        die(step);
      }
      char** env = childEnv();
      long long child = px_spawn(args[0], args, env, PX_SPAWN_SEARCH_PATH);
      free(args);
      free(env);
      if (child < 0) die(step);
      if (strcmp(step, "spawn") == 0) {
        out("spawned %lld\n", child, 0, 0, 0);
        continue;
      }
      if (strcmp(step, "hold") == 0) {
        pthread_t t;
        if (pthread_create(&t, NULL, signalWaiter, NULL) != 0) die(step);
        out("holding %lld\n", child, 0, 0, 0);
      }
      int status = 0;
      long long got = px_waitpid(child, &status, 0);
      if (got != child) die(step);
      out("child %lld exit %lld\n", child, status, 0, 0);
    } else if (strcmp(step, "shm") == 0) {
      const char* text = i < argc ? argv[i++] : "";
      px_shm_id id;
      if (px_get_shared_memory(&id) != 0) die(step);
      char* mem = px_shm_map(&id);
      if (mem == NULL) die(step);
      printf("shm %.*s\n", (int)strnlen(mem, id.size), mem);
      fflush(stdout);
      strncpy(mem, text, id.size);
      px_shm_unmap(mem, &id);
    } else if (strcmp(step, "env") == 0) {
      const char* name = i < argc ? argv[i++] : "";
      const char* value = getenv(name);
      if (value != NULL) {
        printf("env %s=%s\n", name, value);
      } else {
        printf("env %s unset\n", name);
      }
      fflush(stdout);
    } else if (strcmp(step, "print") == 0 || strcmp(step, "eprint") == 0) {
      FILE* f = step[0] == 'e' ? stderr : stdout;
      fprintf(f, "%s\n", i < argc ? argv[i++] : "");
      fflush(f);
    } else if (strcmp(step, "cat") == 0) {
      char buf[4096];
      ssize_t n;
      while ((n = read(0, buf, sizeof buf)) > 0) {
        if (write(1, buf, (size_t)n) != n) die(step);
      }
    } else {
      errno = EINVAL;
      die(step);
    }
  }
  return 0;
}
