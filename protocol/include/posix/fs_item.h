/*
 * The services of an opened file-system item and of a socket, each reached through the node of
 * its description (see nodes.h for the interface types):
 *
 *   PX_IFACE_SEEKABLE (0x880002)   position and seek of the item
 *   PX_IFACE_RESIZABLE (0x880003)  size and resize of the item
 *   PX_IFACE_FS_ITEM (0x880004)    the item's description, and the host file of a regular one
 *   PX_IFACE_STREAM_ADAPTER (0x880001), PX_IFACE_SOCKET (0x880005)   answer 0 to every request
 *
 * Seekable and resizable values are 64-bit integers of exactly 8 bytes each, little-endian. A
 * request that is too short answers PX_ITEM_RESULT_SHORT and changes nothing; a reply value that
 * could not be written answers PX_ITEM_RESULT_NO_REPLY; an unknown command answers 0. The two
 * services share one numbering: each treats the other's codes as unknown.
 * This header is plain C so that any client can include it.
 */
#ifndef POSIX_FS_ITEM_H
#define POSIX_FS_ITEM_H

#include "wire.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The commands of the three services, one numbering, one a line: code, constant, the name tools
 * show, the request's values, the reply's data (value types as in posix_service.h).
 * hostFile: result 1, no data, with a descriptor of the server's host open file attached to the
 * reply (SCM_RIGHTS) for a regular file; the receiver reads, writes, seeks and resizes it at
 * the offset every holder of the description shares. Result 0 for any other item. A reply
 * that could not carry the descriptor at once comes without it: use the services then.
 * lastEmpty: why the description's last read or write that moved nothing did so: 0 the end of
 * the data, EAGAIN (11) nothing could move within its time-out, else the host's errno (EPIPE
 * (32): a FIFO without a reader). Every holder's calls count: ask right after the call. */
#define PX_ITEM_COMMANDS(X)                                                                        \
  X(0, PX_SEEK_CMD_POSITION, "position", "", "u64 position")       /* seekable */                  \
  X(1, PX_SEEK_CMD_SEEK, "seek", "u64 position", "u64 position")   /* all ones on failure */       \
  X(2, PX_RESIZE_CMD_SIZE, "size", "", "u64 size")                 /* resizable */                 \
  X(3, PX_RESIZE_CMD_RESIZE, "resize", "u64 size", "u64 size")     /* all ones on failure */       \
  X(4, PX_ITEM_CMD_DESCRIBE, "describe", "", "string path, i32 type, u32 flags") /* item */        \
  X(5, PX_ITEM_CMD_HOST_FILE, "hostFile", "", "")                                                  \
  X(6, PX_ITEM_CMD_LAST_EMPTY, "lastEmpty", "", "i32 why")

PX_COMMAND_ENUM(px_item_command, PX_ITEM_COMMANDS)

#define PX_ITEM_RESULT_OK 1u
#define PX_ITEM_RESULT_SHORT 9u
#define PX_ITEM_RESULT_NO_REPLY 10u

/* The all-ones value a seek or resize answers when the host refused it. */
#define PX_ITEM_FAILED 0xFFFFFFFFFFFFFFFFull

#ifdef __cplusplus
}
#endif

#endif /* POSIX_FS_ITEM_H */
