/*
 * The POSIX client library: process calls answered by the instance's POSIX service server.
 *
 * Every call speaks the wire format of docs/protocol.md over AF_UNIX SOCK_SEQPACKET sockets to
 * the channel "posix.service" of the instance's runtime directory RT:
 *   $POSIX_RUNTIME_DIR, else $XDG_RUNTIME_DIR/posix, else /tmp/posix-<uid>.
 * Every call initialises the library on demand; px_init() only does it early.
 *
 * Process ids are the host's pids. Signal numbers are the system's own (PX_SIGKILL 9,
 * PX_SIGCHLD 16, PX_SIGCONT 17, PX_SIGSTOP 18, valid numbers 0..31): never the host's.
 *
 * Errors: calls answer -1 and set errno. The server's result codes map to errno as follows:
 *   0  command-specific (documented at each call)
 *   2  EINVAL   signal number out of range
 *   3  ESRCH    no such process or process group
 *   4  EPERM    the caller may not signal the target (nobody was signalled)
 *   5  ECHILD   (wait only) nothing to collect, now or later
 *   6  EINTR    (wait only) the wait was aborted by px_abort_waits()
 *   9, 10, any other code   EPROTO
 * Transport errors: ECONNRESET when the server went away during a call, ECONNREFUSED (stale
 * socket) or ENOENT (no socket) when no server runs on the runtime directory.
 *
 * The library is thread-safe. Each call takes one connection of a small pool for its whole
 * duration (a blocking wait holds one, other threads open more). Signals arrive on one
 * dedicated connection per process and are queued locally, so none is lost between calls.
 * Calls may be made from C and C++; the library throws no exceptions.
 */
#ifndef POSIX_CLIENT_H
#define POSIX_CLIENT_H

#include <stddef.h>
#include <stdint.h>

#include "posix/posix_service.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Signal numbers of the system (not the host's). */
#define PX_SIGKILL 9
#define PX_SIGCHLD 16
#define PX_SIGCONT 17
#define PX_SIGSTOP 18
#define PX_NSIG 32

/* px_spawn flags. */
#define PX_SPAWN_SEARCH_PATH 1 /* look PROGRAM up in PATH when it has no slash */

/* px_waitpid options (the wire's option bits). */
#define PX_WNOHANG 1 /* answer 0 at once when matching children still run */
#define PX_WNOWAIT 8 /* report a zombie but leave it to be collected again */

/* The 32-byte signal record handed to a signal waiter:
 *   from px_kill:            { signal, 0xFFFFFFFF, 0, 0, sender pid, 0 }
 *   from a group signal:     { signal, 0xFFFFFFFF, -, 0, sender pid, 0 } (built by the server)
 *   the child signal (16):   { 16, 1, exit code, 0, child pid, 0 }
 *   a signal that was pending when the wait began carries no record: { signal, 0, 0, 0, 0, 0 }.
 */
typedef px_status_record px_siginfo;

/* A shared-memory object: the file RT/shm/<16 lowercase hex digits of id>, `size` bytes. */
typedef struct px_shm_id {
  uint64_t id;
  uint64_t size;
} px_shm_id;

/* Finds the runtime directory and connects to the server. 0, or -1 with errno. */
int px_init(void);

/* Closes every connection, drops queued signals and the record of spawned children, and
 * forgets the runtime directory; the next call initialises again (for instance after
 * POSIX_RUNTIME_DIR changed). No other call of the library may run at the same time.
 * A signal wait the server still keeps for the closed connection is not withdrawn: on the
 * same server, the next signal to this process answers it and is lost. */
void px_fini(void);

/* The runtime directory in use (found on demand). Valid until px_fini(). */
const char* px_runtime_dir(void);

/* The host pid of the server answering on the runtime directory, -1 with errno if none. */
int64_t px_server_pid(void);

/* Starts PROGRAM as a child of the caller; answers its pid.
 * argv: NULL-terminated (NULL = no arguments); envp: NULL-terminated "NAME=VALUE" entries,
 * NULL = the caller's environment. A relative path with a slash is made absolute against the
 * caller's working directory. The child's standard files are the host paths named by
 * POSIX_STDIN, POSIX_STDOUT, POSIX_STDERR in envp, when present.
 * Result 0 ("could not start"): errno from a local check of the program (ENOENT, EACCES,
 * ENOTDIR...) when that finds a reason, else ENOEXEC. E2BIG when the request does not fit in
 * one frame. */
int64_t px_spawn(const char* path, char* const argv[], char* const envp[], int flags);

/* As px_spawn; the child finds `shm` with px_get_shared_memory(). */
int64_t px_spawn_shared(const char* path, char* const argv[], char* const envp[], int flags,
                        const px_shm_id* shm);

/* Creates a shared-memory object of `size` bytes (zero-filled) and stores its id. */
int px_shm_create(uint64_t size, px_shm_id* out);
/* Opens the object's file read-write (close-on-exec); answers the descriptor. */
int px_shm_open(const px_shm_id* shm);
/* Maps the whole object shared, read-write; NULL with errno on failure. */
void* px_shm_map(const px_shm_id* shm);
/* Unmaps a mapping made by px_shm_map. */
int px_shm_unmap(void* addr, const px_shm_id* shm);
/* Removes the object's file (mappings stay valid). */
int px_shm_unlink(const px_shm_id* shm);

/* The shared-memory object the spawner handed to the caller. Result 0 -> ENOENT. */
int px_get_shared_memory(px_shm_id* out);

/* Waits for a child to end; answers its pid and stores its exit code in *status (may be NULL).
 * A wait that has to block does not keep PX_WNOWAIT: the child that ends it is collected.
 *   pid > 0   that child;  pid == -1  any child;  pid == 0  a child of the caller's own group;
 *   pid < -1  a child of group -pid.
 * PX_WNOHANG: 0 when matching children the library started are still running, ECHILD when
 * there are none. PX_WNOWAIT: the child stays collectable. ECHILD: nothing to wait for.
 * EINTR: px_abort_waits() ended the wait. */
int64_t px_waitpid(int64_t pid, int* status, int options);

/* Sends signal `sig` (0..31, 0 = probe): pid > 0 that process, 0 the caller's own group,
 * -1 every process the caller may signal, < -1 group -pid. Result 0 -> ESRCH (the host could
 * not act on the target). Group forms check the range locally (EINVAL). */
int px_kill(int64_t pid, int sig);
/* Signals group `pgid` (0 = the caller's own). Group 1 cannot be named (ESRCH). */
int px_killpg(int64_t pgid, int sig);
/* Signals every process the caller may signal: px_kill(-1, sig). */
int px_kill_all(int sig);

/* The group of `pid` (0 = the caller). */
int64_t px_getpgid(int64_t pid);
/* The caller's parent as the server knows it: the spawning process, 0 when none. */
int64_t px_getppid(void);

/* Waits for the next signal to the caller; stores its number and record (info may be NULL). */
int px_sigwait(int* sig, px_siginfo* info);
/* As px_sigwait, at most `timeout_ms` milliseconds (negative = for ever); EAGAIN on time-out. */
int px_sigtimedwait(int* sig, px_siginfo* info, int timeout_ms);

/* Ends every blocking px_waitpid of the process (they fail with EINTR). */
int px_abort_waits(void);

#ifdef __cplusplus
}
#endif

#endif /* POSIX_CLIENT_H */
