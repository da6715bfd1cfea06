/*
 * The introspection service, channel "posix.diag.service": a read-only view of what the
 * server keeps (processes, descriptor tables, pipes, request figures) and a stream of the
 * requests it serves. It changes nothing in the server. Strings are platform strings (u32
 * length, then the bytes); every value is little-endian. Unknown commands and requests that
 * are too short answer PX_RESULT_FAILED or PX_RESULT_SHORT_REQUEST (wire.h). docs/protocol.md
 * describes each command in full.
 */
#ifndef POSIX_DIAG_SERVICE_PROTOCOL_H
#define POSIX_DIAG_SERVICE_PROTOCOL_H

#include "wire.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PX_DIAG_SERVICE_NAME "posix.diag.service"

/* Lists come in pages. A list request may end with a u64 `first`, where the page starts
 * (absent: 0, the first page); the reply ends, after its records, with a u64 `next`, where
 * the next page starts (0: the list is complete). Ask again with first = next until it is 0.
 * Texts (program, path) are cut to PX_DIAG_MAX_TEXT bytes, the last three then "...". */
#define PX_DIAG_MAX_TEXT 1024u

/* The commands, one a line: code, constant, the name tools show, the request's values
 * in order, the reply's data (value types as in posix_service.h; process, descriptor, pipe,
 * figures, command, event: the px_diag_* records below; pids: u32 n, then n x u64).
 *
 * processes: living processes by pid, then the zombies their parents keep by pid; at most 128
 * a page. The program is the path and arguments of a program the server started, else empty.
 * descriptors: result 3 (PX_RESULT_NO_PROCESS) when no living process has the pid; the path is
 * an opened item's, else empty.
 * pipes: per pipe or FIFO the processes holding the read end, holding the write end, inside a
 * read now, inside a write now. Pipes that no descriptor table holds are not listed. A page
 * walks part of the tables, so a pipe may come in several pages, each with the pids it found.
 * figures: per command served so far, its figures.
 * monitor: pid 0 is every process. Answered again and again, for as long as the link stays:
 * each reply (result 1) holds the events lost since the last reply, the new events, then one
 * string per event, in the same order: the request's leading string (the path of openItem,
 * spawn, spawnShared) whole up to PX_DIAG_EVENT_TEXT bytes, empty for a command without one.
 * A reader that stops after the events reads the events as they always were. A monitor that
 * does not read loses events, never slows the server. At most 8 monitors, 2 per process and
 * 1 per link; one more is answered at once with result 11. */
#define PX_DIAG_COMMANDS(X)                                                                        \
  X(1, PX_DIAG_CMD_PROCESSES, "processes", "[u64 first]",                                          \
    "u32 count, count x process string, u64 next")                                                 \
  X(2, PX_DIAG_CMD_DESCRIPTORS, "descriptors", "u64 pid, [u64 first]",                             \
    "u32 count, count x descriptor string, u64 next")                                              \
  X(3, PX_DIAG_CMD_PIPES, "pipes", "[u64 first]",                                                  \
    "u32 count, count x pipe pids pids pids pids, u64 next")                                       \
  X(4, PX_DIAG_CMD_FIGURES, "figures", "", "figures, u32 count, count x command")                  \
  X(5, PX_DIAG_CMD_MONITOR, "monitor", "u64 pid",                                                  \
    "u64 lost, u32 count, count x event, count x string")

PX_COMMAND_ENUM(px_diag_command_code, PX_DIAG_COMMANDS)

/* States of px_diag_process. */
#define PX_DIAG_RUNNING 0u   /* a program the server started */
#define PX_DIAG_CONNECTED 1u /* a process that connected on its own */
#define PX_DIAG_ZOMBIE 2u    /* ended, kept for its parent; exit_code is valid */

/* Services named in px_diag_command and px_diag_event. */
#define PX_DIAG_PROCESS_SERVICE 0u /* "posix.service" */
#define PX_DIAG_FD_SERVICE 1u      /* "posix.fd.service" */
/* The services of descriptions, each on its description's own channel. */
#define PX_DIAG_STREAM_SERVICE 2u    /* reads and writes */
#define PX_DIAG_SEEKABLE_SERVICE 3u
#define PX_DIAG_RESIZABLE_SERVICE 4u
#define PX_DIAG_ITEM_SERVICE 5u      /* a file-system item's describe and hostFile */
#define PX_DIAG_FIFO_STATUS_SERVICE 6u
#define PX_DIAG_SOCKET_SERVICE 7u
#define PX_DIAG_SERVICES 8u

/* Latency buckets: bucket i counts replies that took less than 2^i microseconds (the last
 * one everything slower). */
#define PX_DIAG_BUCKETS 24

#pragma pack(push, 1)
typedef struct px_diag_process {
  uint64_t pid;
  uint64_t parent;   /* 0: none */
  uint64_t group;
  uint32_t state;    /* PX_DIAG_* */
  uint32_t exit_code;
  uint32_t descriptors;
  uint32_t children;
  uint32_t waits;    /* queued blocking waits */
  uint32_t pending;  /* bit s-1 for a pending signal s */
  uint32_t signal_waiter; /* 1 while a signal wait is kept */
} px_diag_process;

typedef struct px_diag_descriptor {
  int32_t fd;
  int32_t type;      /* PX_FD_KIND_* */
  uint32_t end;      /* a pipe end: 1 read, 2 write; 0 otherwise */
  uint64_t offset;   /* an opened item's offset; all ones when it has none */
  uint64_t pipe;     /* the pipe's number (as PX_DIAG_CMD_PIPES lists it); 0 otherwise */
} px_diag_descriptor;

typedef struct px_diag_pipe {
  uint64_t pipe;
  uint64_t buffered;
  uint32_t flags;    /* 1: end-of-file (no writer left), 2: broken (no reader left) */
} px_diag_pipe;

typedef struct px_diag_figures {
  uint64_t processes;
  uint64_t threads;
  uint64_t heap_bytes;
  uint64_t heap_blocks;
  uint64_t descriptors;       /* host descriptors the server holds */
  uint64_t descriptor_limit;
  uint64_t links;             /* client links open on every service */
} px_diag_figures;

typedef struct px_diag_command {
  uint32_t service;  /* PX_DIAG_*_SERVICE */
  uint32_t code;
  uint64_t requests;
  uint64_t buckets[PX_DIAG_BUCKETS];
} px_diag_command;

typedef struct px_diag_event {
  uint64_t time_us;  /* when the request arrived, microseconds of the host's real-time clock */
  uint64_t pid;
  uint32_t service;
  uint32_t code;
  uint32_t result;   /* the reply's result code; PX_DIAG_KEPT for a request kept to answer later */
  uint32_t size;     /* bytes of the request's data */
  uint64_t took_us;
  uint8_t head[16];  /* the first bytes of the request's data, zero-padded */
} px_diag_event;
#pragma pack(pop)

#define PX_DIAG_KEPT 0xFFFFFFFFu
/* Bytes of a request's string that a monitor's reply carries at most: a longer string (no
 * host path is) comes cut, and its whole length stays in the event's head. */
#define PX_DIAG_EVENT_TEXT 4096u
/* In an event's result: the late answer of a request that an earlier event showed kept (a
 * spawn answered once the program runs, a wait once a child ends, a signal wait once a signal
 * comes). The low bits hold the answer's result; time_us is still the request's arrival and
 * took_us runs until the answer. */
#define PX_DIAG_LATE 0x80000000u

#ifdef __cplusplus
}
#endif

#endif /* POSIX_DIAG_SERVICE_PROTOCOL_H */
