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
 *   11 EAGAIN   a bound of the caller was reached (too many broadcasts waiting, or a link
 *               refused because the process holds too many); EMFILE for descriptor calls
 *   9, 10, any other code   EPROTO
 * Transport errors: ECONNRESET when the server went away during a call, ECONNREFUSED (stale
 * socket) or ENOENT (no socket) when no server runs on the runtime directory, ETIMEDOUT when
 * the server did not answer within 20 seconds a request it answers at once (every call but a
 * blocking px_waitpid and px_sigwait, which wait as long as they must).
 * EACCES: the library refuses a runtime directory that is not the caller's own (not a
 * directory, a symlink, owned by another user than the effective uid, or open to group or
 * others), and a server on it that runs as another user; it sends nothing there.
 * No descriptor the library opens takes number 0, 1 or 2.
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
#include <sys/types.h>

#include "posix/nodes.h"
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
 * NULL = the caller's environment. These names in envp are taken by the server, not passed on:
 *   POSIX_CWD      the child's working directory. Default: the caller's.
 *   POSIX_STDIN, POSIX_STDOUT, POSIX_STDERR
 *                  host paths the server opens as the child's standard input (read-only),
 *                  output and error (write-only, appending); relative to POSIX_CWD. The empty
 *                  value starts the child with that descriptor closed. Default: the caller's
 *                  own descriptor 0, 1, 2, named as /proc/<caller>/fd/N and so opened again:
 *                  a terminal, pipe or device is the same file; a regular file is the same
 *                  file with an offset of its own (output appends at its end, input starts at
 *                  its beginning); a closed descriptor stays closed; a socket cannot be opened
 *                  again, so the server's default stands (input /dev/null, output and error
 *                  into the server's own, usually its log).
 * A relative PROGRAM resolves against the child's working directory; with PX_SPAWN_SEARCH_PATH
 * and no slash it is looked up in envp's PATH. The child leads a host process group of its
 * own (its pgid is its pid), which what it starts with the host's fork joins unless it moves.
 * Result 0 ("could not start"): errno is the server's reason: ENOENT (no such program or
 * directory), EACCES, ENOEXEC, ENOTDIR, ETXTBSY... from the program's start; ENXIO when an
 * output file is a FIFO without a reader (nothing a start opens may wait on another process);
 * ETIMEDOUT when the start took longer than 5 seconds (it is then given up); EINVAL for a path
 * holding a NUL byte. E2BIG when the request does not fit in one frame. EAGAIN (result 11)
 * when the caller already has as many children as it may, living, ended and not yet collected,
 * or being started (docs/protocol.md section 10.3); nothing is started then. */
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


/*
 * Descriptors. The server keeps the process's descriptor table; these calls change it through
 * the descriptor service "posix.fd.service" and reach each open file description through the
 * services its node lists (a stream for the bytes, a status service for pipe ends). The first
 * call fetches the table, so a program started with px_spawn sees the descriptors its parent
 * had, under the same numbers. When that server has gone, the next call fetches the table of
 * the server that answers now: the old descriptors went with their server (EBADF). Numbers 0, 1 and 2 of a process that started on its own are
 * taken (placeholders without a description); its first descriptor is 3.
 *
 * Each description has at most one link per service in a process, shared by all its local
 * descriptors and closed when the last of them is closed. Reads and writes that wait do so in
 * one-second slices, so a server that goes away ends them with ECONNRESET; a reply that takes
 * longer than 20 seconds ends them with ETIMEDOUT. The descriptors of a forked (not spawned)
 * child are not usable: the child's first call starts a view of its own.
 *
 * errno values:
 *   EBADF      not an open descriptor (for read and write also: a number reserved without a
 *              description, or the wrong end of a pipe); for px_dup2 a negative new number
 *              or one of 1048576 and above
 *   EINVAL     px_dupfd with a negative minimum or one of 1048576 and above; px_read/px_write
 *              of a description that offers no stream
 *   EMFILE     the server refused for a bound (its result 11): no number free (a process
 *              holds at most 4096 descriptors, placeholders included), or the process holds
 *              as many descriptions as it may (pipe ends, opened files and sockets it made and
 *              that are still open anywhere: the server's descriptor limit / 16, from 16 to
 *              4096; px_pipe_channels also leaves at most that limit / 64 ends unconnected),
 *              or the server keeps its last descriptors back for others (docs/protocol.md
 *              section 10.2 gives the numbers); also a pipe (px_pipe, px_pipe_channels) or a
 *              number (px_reserve_fd) the server could not make
 *   EPIPE      px_write after every reader of the pipe has gone (no host signal is raised)
 *   EAGAIN     a non-blocking read of an empty pipe or write to a full one
 *   EINTR      a host signal handler ran while a read or write waited, and nothing moved
 *   ECONNRESET, ETIMEDOUT, EPROTO   the server went away, hangs, or answered nonsense
 */

/* Description types, as the server's table reports them. */
#define PX_FD_KIND_RESERVED 0 /* a number taken without a description (px_reserve_fd) */
#define PX_FD_KIND_FILE 1
#define PX_FD_KIND_DIRECTORY 2
#define PX_FD_KIND_CHAR_DEVICE 3
#define PX_FD_KIND_BLOCK_DEVICE 4
#define PX_FD_KIND_FIFO 5 /* a pipe or FIFO end */
#define PX_FD_KIND_SOCKET 6
#define PX_FD_KIND_OTHER 9

/* Descriptor numbers are below this. */
#define PX_FD_LIMIT 1048576

/* A new pipe: fds[0] its read end, fds[1] its write end (the two lowest free numbers). */
int px_pipe(int fds[2]);
/* A second descriptor for fd's description under the lowest free number. */
int px_dup(int fd);
/* As px_dup, under the lowest free number >= min. */
int px_dupfd(int fd, int min);
/* A second descriptor under exactly `newfd`, closing what newfd held first. px_dup2(fd, fd)
 * answers fd when fd is open. */
int px_dup2(int fd, int newfd);
/* Closes fd. A pipe end closes when its last descriptor in every process is closed: then
 * readers see end-of-file once the buffered bytes are read, and writers get EPIPE. */
int px_close(int fd);
/* Reads up to n bytes (at most 65536 per call); waits for at least one byte unless
 * non-blocking. 0 at end-of-file. */
ssize_t px_read(int fd, void* buf, size_t n);
/* Writes n bytes, waiting for room unless non-blocking (then it may write fewer). A write of
 * up to 4096 bytes to a pipe arrives whole, never mixed with other writers' bytes. A write
 * that was cut short by EPIPE, EAGAIN or EINTR after some bytes moved answers that count. */
ssize_t px_write(int fd, const void* buf, size_t n);
/* Sets or clears non-blocking mode of fd's description (for this process's descriptors of
 * it; other processes keep their own mode). */
int px_set_nonblock(int fd, int on);
/* Takes the lowest free number without a description behind it; px_close frees it. */
int px_reserve_fd(void);

typedef struct px_fd_info {
  int fd;
  int kind; /* PX_FD_KIND_* */
} px_fd_info;

/* The descriptors this process knows, ascending: fills up to `max` entries and answers how
 * many there are. Placeholders the process never learned about (0, 1, 2 of a fresh process)
 * are not listed. */
int px_fd_list(px_fd_info* out, int max);

/* One record of the table as the server serialises it. */
#define PX_FD_MAX_ENTRIES 8
typedef struct px_fd_record {
  int64_t fd;
  int32_t type;         /* PX_FD_KIND_* */
  uint32_t entry_count; /* entries of the node (only the first PX_FD_MAX_ENTRIES are kept) */
  px_node_entry entries[PX_FD_MAX_ENTRIES];
} px_fd_record;

/* Fetches the table from the server: fills up to `max` records and answers how many there
 * are. Numbers without a description produce no record. */
int px_fd_table(px_fd_record* out, int max);
/* A short name of a description type: "file", "fifo", "socket", ... ("?" when unknown). */
const char* px_fd_kind_name(int kind);

/*
 * Files and sockets. An opened file-system item is a description of the server like a pipe
 * end: its descriptors inherit into spawned children under the same numbers, and every
 * descriptor of it, in every process, shares its offset. For a regular file the server hands
 * each process a descriptor of its own host open file (once per description), and reads,
 * writes, seeks and resizes are then the host's calls on it: the host kernel keeps the one
 * offset that every descriptor, child and the server's services see. Other items
 * (directories, devices, host FIFOs) keep their offset in the server, and px_lseek asks it.
 * The item is opened by the server process on the host: paths are host paths, and the open
 * flags and mode are the host's O_* flags and mode bits, passed through. Reading a file answers 0 at its end; reading an item that may wait (a terminal, a
 * host FIFO) waits for data as a pipe end does.
 *
 * errno values, beyond those of the descriptor calls above:
 *   px_open      the host's own error for the open (ENOENT, EACCES, EISDIR, EEXIST...);
 *                EMFILE when the server made no description or refused for a bound (as
 *                above; the item is then not opened, created or truncated); EFAULT
 *                for a NULL path, ENOENT for an empty one
 *   px_read      EBADF when the item was opened write-only, EISDIR for a directory; on a
 *                host FIFO opened O_NONBLOCK (px_open honours it), EAGAIN while it is empty
 *                and a writer has it open
 *   px_write     EBADF when the item was opened read-only, EISDIR for a directory; on a
 *                host FIFO, EPIPE once no reader has it open (no host signal is raised) and,
 *                opened O_NONBLOCK, the bytes that fit, then EAGAIN while it is full; EIO
 *                when the host took none of the bytes for another reason
 *   px_lseek     ESPIPE when the description cannot seek (a pipe, a socket); EINVAL for an
 *                unknown origin, a resulting offset below 0, or a position the host refused;
 *                EOVERFLOW when the offset does not fit in 64 bits
 *   px_ftruncate EINVAL for a negative length, or when the description cannot be resized (it
 *                was not opened for writing, or it is no regular file); EIO when the host
 *                refused the size
 *   px_describe  EINVAL for a description that is no file-system item; ENAMETOOLONG when the
 *                path does not fit in px_item_info
 *   px_socket    EMFILE when the server made no socket or had no number free
 * A number reserved without a description answers EBADF to all of them.
 */

/* Opens `path` through the server (a relative path is made absolute against the caller's
 * working directory first); answers the lowest free number. `mode` counts with O_CREAT. */
int px_open(const char* path, int flags, unsigned mode);

/* Sets the offset of fd's description: whence is SEEK_SET, SEEK_CUR or SEEK_END. Answers the
 * new offset. On a regular file it is the host's lseek on the shared host open file (atomic,
 * no request). On other items px_lseek(fd, 0, SEEK_CUR) only asks the server; the offset is
 * read and set in separate requests there, so a relative seek is not atomic against another
 * process moving the same offset, and SEEK_END takes the size from the server when the item
 * was opened for writing, otherwise from the item at its path on the host. */
int64_t px_lseek(int fd, int64_t offset, int whence);

/* Cuts or extends the item to `length` bytes (the new bytes read as zeros). */
int px_ftruncate(int fd, int64_t length);

#define PX_ITEM_PATH_MAX 4096

typedef struct px_item_info {
  char path[PX_ITEM_PATH_MAX]; /* the absolute host path it was opened by, NUL-terminated */
  int32_t type;                /* PX_FD_KIND_* */
  uint32_t open_flags;         /* the host O_* flags of the open, as the server keeps them */
  int has_size;                /* 1 when `size` is set: the item can be resized */
  int64_t size;                /* its size in bytes when has_size */
} px_item_info;

/* Describes the file-system item behind fd. */
int px_describe(int fd, px_item_info* out);

/* A new socket description under the lowest free number. The server only numbers and
 * tables it (type PX_FD_KIND_SOCKET): it has no stream (px_read and px_write answer EINVAL)
 * and cannot seek. */
int px_socket(void);

/* A pipe of the process service: two ends that no descriptor table holds. Each end lives while
 * a connection to it is open and closes itself when its last connection goes, also when the
 * process dies. Only the calling process can connect to them (a child it starts cannot: pass
 * it a px_pipe instead). The handles read and write like px_read/px_write. */
typedef struct px_channel px_channel;
int px_pipe_channels(px_channel* ends[2]);
ssize_t px_channel_read(px_channel* ch, void* buf, size_t n);
ssize_t px_channel_write(px_channel* ch, const void* buf, size_t n);
int px_channel_set_nonblock(px_channel* ch, int on);
/* Closes the handle's connections: the end closes (readers of the other end see end-of-file,
 * writers EPIPE). */
void px_channel_close(px_channel* ch);

#ifdef __cplusplus
}
#endif

#endif /* POSIX_CLIENT_H */
