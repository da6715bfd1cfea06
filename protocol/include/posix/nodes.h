/*
 * Nodes and the stream resolver service.
 *
 * A node lists the services through which a client reaches something (an open file
 * description, the server itself). Its record, as a device-node file holds it and as a node
 * provider writes it into a message, is a u32 entry count followed by the entries, each six
 * little-endian u64 values. Each entry names a service: the client connects to the channel
 * RT/chn/<channel as 16 hex digits>, binds to `service` and speaks the protocol that the
 * interface type stands for.
 * This header is plain C so that any client can include it.
 */
#ifndef POSIX_NODES_H
#define POSIX_NODES_H

#include "wire.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct px_node_entry {
  uint64_t type;      /* interface type, PX_IFACE_* */
  uint64_t channel;   /* channel id of the multiplex that serves it */
  uint64_t service;   /* service id within that multiplex (1, 2, 3, ...) */
  uint64_t reserved0; /* 0 */
  uint64_t access;    /* PX_ACCESS_* */
  uint64_t reserved1; /* 0 */
} px_node_entry;

#define PX_NODE_COUNT_SIZE 4u  /* the u32 entry count in front of the entries */
#define PX_NODE_ENTRY_SIZE 48u

/* Interface types of node entries. */
#define PX_IFACE_STREAM 0x10010u         /* a byte stream served by the stream resolver */
#define PX_IFACE_FIFO_STATUS 0x880000u   /* status of a FIFO end */
#define PX_IFACE_STREAM_ADAPTER 0x880001u /* stream adapter of a file-system item */
#define PX_IFACE_SEEKABLE 0x880002u
#define PX_IFACE_RESIZABLE 0x880003u
#define PX_IFACE_FS_ITEM 0x880004u
#define PX_IFACE_SOCKET 0x880005u
#define PX_IFACE_UNUSED 0x880006u        /* not used by this server */
#define PX_IFACE_POSIX_SERVICE 0x880007u /* the server's own node */

/* Access flags of node entries. */
#define PX_ACCESS_READ 2u
#define PX_ACCESS_WRITE 4u
#define PX_ACCESS_SERVICE 32u

/*
 * The stream resolver (PX_IFACE_STREAM). Requests:
 *   PX_STREAM_READ:  u64 max bytes, u32 time-out (ms) -> status 1, data = the bytes read
 *                    (0 to min(max bytes, PX_STREAM_MAX_READ)).
 *   PX_STREAM_WRITE: u32 time-out (ms), then the bytes -> status 1, data = u64 count written.
 *   other codes -> status 0; a request shorter than its values -> status 9.
 * A read or write of 0 bytes says nothing about why; the owner of the stream tells (for a
 * FIFO end, its status service).
 */
#define PX_STREAM_COMMANDS(X)                                                                      \
  X(1, PX_STREAM_READ, "read", "u64 max, u32 timeout", "bytes")                                    \
  X(2, PX_STREAM_WRITE, "write", "u32 timeout, bytes data", "u64 written")

PX_COMMAND_ENUM(px_stream_command, PX_STREAM_COMMANDS)

#define PX_STREAM_MAX_READ 65536u

#ifdef __cplusplus
static_assert(sizeof(px_node_entry) == PX_NODE_ENTRY_SIZE, "node entry is six u64");
}
#else
_Static_assert(sizeof(px_node_entry) == PX_NODE_ENTRY_SIZE, "node entry is six u64");
#endif

#endif /* POSIX_NODES_H */
