/*
 * The descriptor service, channel "posix.fd.service": command codes and result codes.
 * A process may use it only once "posix.service" knows it. Descriptor numbers travel as
 * signed 32-bit values. A command that would pass a bound (a full table, too many
 * descriptions) answers PX_RESULT_LIMIT (wire.h). docs/protocol.md describes each command in
 * full.
 */
#ifndef POSIX_FD_SERVICE_PROTOCOL_H
#define POSIX_FD_SERVICE_PROTOCOL_H

#ifdef __cplusplus
extern "C" {
#endif

#define PX_FD_CMD_CLOSE 0u         /* i32 fd */
#define PX_FD_CMD_DUP 1u           /* i32 old fd, i32 new fd, u8 replace -> i32 fd */
#define PX_FD_CMD_GET_TABLE 2u     /* [u64 first number] -> the serialised table from that number
                                      on, as much as fits; result = entries present in all */
#define PX_FD_CMD_RESERVE 3u       /* - -> i32 fd (result 8: no node behind it) */
#define PX_FD_CMD_OPEN 4u          /* string path, u32 open flags, u32 mode [, u32 options]
                                      -> i32 fd, node */
#define PX_FD_CMD_RESERVE_ALT1 5u  /* as PX_FD_CMD_RESERVE */
#define PX_FD_CMD_RESERVE_ALT2 6u  /* as PX_FD_CMD_RESERVE */
#define PX_FD_CMD_CREATE_PIPE 7u   /* - -> i32 read fd, node, i32 write fd, node */
#define PX_FD_CMD_CREATE_SOCKET 8u /* - -> i32 fd, node */

/* openItem options: attach the host open file of a regular file to the reply (SCM_RIGHTS), as
 * the item service's hostFile does, so that the opener needs no second request for it. */
#define PX_FD_OPEN_HOST_FILE 1u

/* Types that end a serialised table's reply: the table goes on from the u64 number that
 * follows (ask again with it), or it ends here. No description has either type. */
#define PX_FD_TABLE_MORE 7
#define PX_FD_TABLE_END 8

#define PX_FD_RESULT_OPEN_FAILED 7u /* a u32 host error code follows */
#define PX_FD_RESULT_NO_NODE 8u     /* a number was given but no node stands behind it */
#define PX_FD_RESULT_BAD_FD 9u

#ifdef __cplusplus
}
#endif

#endif /* POSIX_FD_SERVICE_PROTOCOL_H */
