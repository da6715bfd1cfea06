/*
 * The descriptor service, channel "posix.fd.service": command codes and result codes.
 * A process may use it only once "posix.service" knows it. Descriptor numbers travel as
 * signed 32-bit values. A command that would pass a bound (a full table, too many
 * descriptions) answers PX_RESULT_LIMIT (wire.h). docs/protocol.md describes each command in
 * full.
 */
#ifndef POSIX_FD_SERVICE_PROTOCOL_H
#define POSIX_FD_SERVICE_PROTOCOL_H

#include "wire.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The commands, one a line: code, constant, the name tools show, the request's values in
 * order, the reply's data (value types as in posix_service.h; table: the serialised table from
 * `first` on, as much as fits, with result = the entries present in all). The three reserve
 * commands are one; RESERVE answers 8 when no node stands behind the number. */
#define PX_FD_COMMANDS(X)                                                                          \
  X(0, PX_FD_CMD_CLOSE, "close", "i32 fd", "")                                                     \
  X(1, PX_FD_CMD_DUP, "dup", "i32 fd, [i32 onto], [u8 replace]", "i32 fd")                         \
  X(2, PX_FD_CMD_GET_TABLE, "getTable", "[u64 first]", "table")                                    \
  X(3, PX_FD_CMD_RESERVE, "reserve", "", "i32 fd")                                                 \
  X(4, PX_FD_CMD_OPEN, "openItem", "string path, u32 flags, u32 mode, [u32 options]",              \
    "i32 fd, node item")                                                                           \
  X(5, PX_FD_CMD_RESERVE_ALT1, "reserve", "", "i32 fd")                                            \
  X(6, PX_FD_CMD_RESERVE_ALT2, "reserve", "", "i32 fd")                                            \
  X(7, PX_FD_CMD_CREATE_PIPE, "createPipe", "", "i32 read, node read, i32 write, node write")      \
  X(8, PX_FD_CMD_CREATE_SOCKET, "createSocket", "", "i32 fd, node socket")

PX_COMMAND_ENUM(px_fd_command, PX_FD_COMMANDS)

/* openItem options: attach the host open file of a regular file to the reply (SCM_RIGHTS), as
 * the item service's hostFile does, so that the opener needs no second request for it. */
#define PX_FD_OPEN_HOST_FILE 1u

/* Types that end a serialised table's reply: the table goes on from the u64 number that
 * follows (ask again with it), or it ends here. No description has either type. */
#define PX_FD_TABLE_MORE 7
#define PX_FD_TABLE_END 8

/* Result codes of the descriptor service besides the shared ones (wire.h). BAD_FD shares its
 * code with PX_RESULT_SHORT_REQUEST: a reader tells them apart by the command. */
#define PX_FD_RESULTS(X)                                                                           \
  X(7, PX_FD_RESULT_OPEN_FAILED, "open-failed") /* a u32 host error code follows */                \
  X(8, PX_FD_RESULT_NO_NODE, "no-node") /* a number was given but no node stands behind it */      \
  X(9, PX_FD_RESULT_BAD_FD, "bad-fd")

PX_RESULT_CONSTANTS(PX_FD_RESULTS)

#ifdef __cplusplus
}
#endif

#endif /* POSIX_FD_SERVICE_PROTOCOL_H */
