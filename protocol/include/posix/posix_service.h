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

/* Command codes. */
#define PX_CMD_KILL 1u              /* u64 pid, u32 signal, 32-byte info */
#define PX_CMD_KILL_GROUP 2u        /* u64 selector, u32 signal, 32-byte info */
#define PX_CMD_WAIT_SIGNAL 3u       /* -; kept until a signal comes */
#define PX_CMD_GET_GROUP_ID 4u      /* u64 pid -> u64 group id */
#define PX_CMD_GET_PARENT_ID 5u     /* - -> u64 parent pid (0 when none) */
#define PX_CMD_SPAWN 6u             /* see below -> u64 pid */
#define PX_CMD_SPAWN_SHARED 7u      /* as SPAWN, then u64, u64 shared-memory id -> u64 pid */
#define PX_CMD_GET_SHARED_MEMORY 8u /* - -> u64, u64 shared-memory id */
#define PX_CMD_WAIT 9u              /* u32 kind, u64 value, u64 options; kept until answered */
#define PX_CMD_ABORT_WAITS 10u      /* - ; queued waits answered with PX_RESULT_ABORTED */
#define PX_CMD_CREATE_PIPE 11u      /* - -> read end's node record, write end's node record */

/* SPAWN request: string path, u32 start flags, u64 argc, argc strings,
 * u64 envc, envc (name, value) string pairs, u32 start options. */
#define PX_SPAWN_FLAG_SEARCH_PATH 1u /* look the path up in PATH when it has no slash */

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

/* Result codes of the process service. */
#define PX_RESULT_BAD_SIGNAL 2u      /* signal number 32 or more */
#define PX_RESULT_NO_PROCESS 3u      /* no such process or group */
#define PX_RESULT_NOT_PERMITTED 4u   /* may not signal the target; nobody signalled */
#define PX_RESULT_NO_CHILD 5u        /* wait: nothing to collect now or later */
#define PX_RESULT_ABORTED 6u         /* wait: aborted by ABORT_WAITS */

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
