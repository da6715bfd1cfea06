/*
 * The process service, channel "posix.service": command codes, value layouts and result codes.
 *
 * Every request's values travel in the frame's data stream as raw little-endian integers
 * (u32 = 4 bytes, u64 = 8 bytes), strings as platform strings (u32 length + bytes).
 * docs/protocol.md describes each command in full.
 */
#ifndef POSIX_SERVICE_PROTOCOL_H
#define POSIX_SERVICE_PROTOCOL_H

#include <stdint.h>

#include "wire.h"

#ifdef __cplusplus
extern "C" {
#endif

#define PX_SERVICE_NAME "posix.service"
#define PX_FD_SERVICE_NAME "posix.fd.service"
#define PX_SERVICE_NODE_PATH "/tmp/.PosixService"
#define PX_SERVICE_NODE_TYPE 0x880007u

/* The commands, one a line: code, constant, the name tools show, the request's values in
 * order, the reply's data. Value types: u8, u32, i32, u64; record (32 bytes, px_status_record);
 * string (a platform string); node (a node record, nodes.h). "[...]" is a value a request may
 * leave out; "n x ..." repeats what follows n times, n being the value named just before. */
#define PX_PROCESS_COMMANDS(X)                                                                     \
  X(1, PX_CMD_KILL, "kill", "u64 target, u32 signal, record info", "")                             \
  X(2, PX_CMD_KILL_GROUP, "killGroup", "u64 selector, u32 signal, record info", "")                \
  X(3, PX_CMD_WAIT_SIGNAL, "waitSignal", "", "") /* kept until a signal comes */                   \
  X(4, PX_CMD_GET_GROUP_ID, "getGroupId", "u64 pid", "u64 group")                                  \
  X(5, PX_CMD_GET_PARENT_ID, "getParentId", "", "u64 parent") /* 0 when none */                    \
  X(6, PX_CMD_SPAWN, "spawn", PX_SPAWN_REQUEST, "u64 pid")                                         \
  X(7, PX_CMD_SPAWN_SHARED, "spawnShared", PX_SPAWN_REQUEST ", u64 shm, u64 size", "u64 pid")      \
  X(8, PX_CMD_GET_SHARED_MEMORY, "getSharedMemory", "", "u64 shm, u64 size")                       \
  X(9, PX_CMD_WAIT, "wait", "u32 kind, u64 value, u64 options", "") /* kept until answered */      \
  X(10, PX_CMD_ABORT_WAITS, "abortWaits", "", "") /* queued waits answered PX_RESULT_ABORTED */    \
  X(11, PX_CMD_CREATE_PIPE, "createPipe", "", "node read, node write")

/* A spawn request: the program's path, its start flags, its arguments, its environment as
 * (name, value) pairs, and start options (PX_SPAWN_OPTION_*: which of the caller's own files
 * came with the request). */
#define PX_SPAWN_REQUEST                                                                           \
  "string path, u32 flags, u64 argc, argc x string, u64 envc, envc x string string, u32 options"

PX_COMMAND_ENUM(px_process_command, PX_PROCESS_COMMANDS)

/* The names of a spawn request's environment pairs that the server takes and does not pass on:
 * the child's working directory, and the host paths of its standard input, output and error
 * (empty: the child starts with that descriptor closed). */
#define PX_ENV_CWD "POSIX_CWD"
#define PX_ENV_STDIN "POSIX_STDIN"
#define PX_ENV_STDOUT "POSIX_STDOUT"
#define PX_ENV_STDERR "POSIX_STDERR"

#define PX_SPAWN_FLAG_SEARCH_PATH 1u /* look the path up in PATH when it has no slash */

/* Spawn start options: each bit says that the request datagram carries (SCM_RIGHTS) a
 * descriptor for that slot, in this order, one per bit set. A slot whose name the environment
 * sets takes the name instead. */
#define PX_SPAWN_OPTION_STDIN_FD 1u  /* standard input */
#define PX_SPAWN_OPTION_STDOUT_FD 2u /* standard output */
#define PX_SPAWN_OPTION_STDERR_FD 4u /* standard error */
#define PX_SPAWN_OPTION_CWD_FD 8u    /* working directory (O_PATH is enough) */
#define PX_SPAWN_OPTIONS_ALL 15u

/* killGroup selectors: 0 the caller's own group, 1 every process, other: that group id. */
#define PX_KILL_SELECTOR_OWN_GROUP 0u
#define PX_KILL_SELECTOR_ALL 1u

/* The signal information block carried by kill and killGroup and handed to a signal waiter. */
#define PX_SIGNAL_INFO_SIZE 32u

/* Wait kinds and option bits. */
#define PX_WAIT_BY_PID 0u
#define PX_WAIT_BY_GROUP 1u
#define PX_WAIT_ANY_CHILD 2u
#define PX_WAIT_OPT_NOHANG 1u  /* never queue the wait */
#define PX_WAIT_OPT_NOWAIT 8u  /* report the zombie but leave it in place */

/* Typed block kind that carries a child-status or signal record in a reply. */
#define PX_BLOCK_RECORD 2u

/* Result codes of the process service besides the shared ones (wire.h): code, constant, the
 * name tools show. */
#define PX_PROCESS_RESULTS(X)                                                                      \
  X(2, PX_RESULT_BAD_SIGNAL, "bad-signal")       /* signal number 32 or more */                    \
  X(3, PX_RESULT_NO_PROCESS, "no-process")       /* no such process or group */                    \
  X(4, PX_RESULT_NOT_PERMITTED, "not-permitted") /* may not signal the target; nobody signalled */ \
  X(5, PX_RESULT_NO_CHILD, "no-child")           /* wait: nothing to collect now or later */       \
  X(6, PX_RESULT_ABORTED, "aborted")             /* wait: aborted by ABORT_WAITS */

PX_RESULT_CONSTANTS(PX_PROCESS_RESULTS)

/* The system's own signal numbers (not the host's). Valid numbers are 0 to 31. */
#define PX_SIG_PROBE 0u
#define PX_SIG_KILL 9u
#define PX_SIG_CHILD 16u
#define PX_SIG_CONT 17u
#define PX_SIG_STOP 18u
#define PX_SIG_COUNT 32u

/* The child-status record: in wait replies and with the child signal (32 bytes).
 * A signal record built by the server for a group signal has the same layout with
 * code 0xFFFFFFFF and the sender's pid in `pid`. */
typedef struct px_status_record {
  uint32_t signal;    /* 16 for a child's end */
  uint32_t code;      /* 1 for a child's end */
  uint32_t exit_code; /* the child's exit code (128 + host signal when a signal ended it) */
  uint32_t pad;
  uint64_t pid;
  uint64_t reserved;
} px_status_record;

#ifdef __cplusplus
static_assert(sizeof(px_status_record) == PX_SIGNAL_INFO_SIZE, "status record is 32 bytes");
}
#endif

#endif /* POSIX_SERVICE_PROTOCOL_H */
