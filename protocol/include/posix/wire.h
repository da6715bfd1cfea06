/*
 * The frame format of every channel of an instance.
 *
 * A channel is an AF_UNIX SOCK_SEQPACKET listening socket; one message is one datagram.
 * All integers are little-endian. A frame is a 24-byte header, the data stream, then
 * `block_count` typed blocks (each a px_block_header followed by `length` bytes).
 * This header is plain C so that any client can include it.
 */
#ifndef POSIX_WIRE_H
#define POSIX_WIRE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The largest datagram, header included. A larger one is a protocol error: the link closes. */
#define PX_WIRE_MAX_FRAME 131072u

/* Frame kinds. */
#define PX_FRAME_REQUEST 1u
#define PX_FRAME_REPLY 2u
#define PX_FRAME_BIND 3u

/* A platform string in a data stream: u32 byte length, then the bytes, no terminator. */
#define PX_WIRE_STRING_HEADER 4u

/* Result codes every service shares: code, constant, the name tools show. LIMIT: a
 * bound of the caller, or the reserve the server keeps for others, was reached; nothing was
 * done (docs/protocol.md lists the bounds). */
#define PX_SHARED_RESULTS(X)                                                                       \
  X(0, PX_RESULT_FAILED, "failed")                                                                 \
  X(1, PX_RESULT_DONE, "done")                                                                     \
  X(9, PX_RESULT_SHORT_REQUEST, "short")                                                           \
  X(10, PX_RESULT_REPLY_UNWRITTEN, "reply-unwritten")                                              \
  X(11, PX_RESULT_LIMIT, "limit")

/* A table of result codes as constants: unsigned values in C++, where one expression may mix
 * the shared codes with a service's own; an enum in C. */
#ifdef __cplusplus
#define PX_RESULT_CONSTANT(code, constant, name) static constexpr uint32_t constant = code;
#define PX_RESULT_CONSTANTS(list) list(PX_RESULT_CONSTANT)
#else
#define PX_RESULT_CONSTANT(code, constant, name) constant = code,
#define PX_RESULT_CONSTANTS(list) enum { list(PX_RESULT_CONSTANT) };
#endif

PX_RESULT_CONSTANTS(PX_SHARED_RESULTS)

/* A service's table of commands (code, constant, the name tools show, request, reply) as an
 * enum of its command codes. */
#define PX_COMMAND_CODE(code, constant, name, request, reply) constant = code,
#define PX_COMMAND_ENUM(tag, list) enum tag { list(PX_COMMAND_CODE) };

/* A description's service: the caller's table holds the description no longer, so the page
 * or host open file it asked for is not handed over. */
#define PX_RESULT_NOT_HOLDER 4u

/* Wait for ever, where a time-out in milliseconds is asked for. */
#define PX_WAIT_FOREVER 0xFFFFFFFFu

typedef struct px_frame_header {
  uint32_t kind;        /* PX_FRAME_REQUEST, PX_FRAME_REPLY or PX_FRAME_BIND */
  uint32_t code;        /* request: command; reply: result code; bind: 0 */
  uint64_t id;          /* request id chosen by the client; a reply echoes it; bind: service id */
  uint32_t data_len;    /* bytes of data stream after the header */
  uint32_t block_count; /* typed blocks after the data stream */
} px_frame_header;

typedef struct px_block_header {
  uint32_t kind;
  uint32_t length; /* bytes that follow */
} px_block_header;

#define PX_FRAME_HEADER_SIZE 24u
#define PX_BLOCK_HEADER_SIZE 8u

#ifdef __cplusplus
static_assert(sizeof(px_frame_header) == PX_FRAME_HEADER_SIZE, "frame header is 24 bytes");
static_assert(sizeof(px_block_header) == PX_BLOCK_HEADER_SIZE, "block header is 8 bytes");
}
#else
_Static_assert(sizeof(px_frame_header) == PX_FRAME_HEADER_SIZE, "frame header is 24 bytes");
_Static_assert(sizeof(px_block_header) == PX_BLOCK_HEADER_SIZE, "block header is 8 bytes");
#endif

#endif /* POSIX_WIRE_H */
