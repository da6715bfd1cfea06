/*
 * The shared page of a pipe or FIFO: the buffer itself, reachable from every process that holds
 * an end, so that bytes move without a request per read or write.
 *
 * The FIFO status service of an end (PX_IFACE_FIFO_STATUS) answers command
 * PX_FIFO_CMD_SHARED_PAGE with result 1, data = u32 token, u32 ring size, and a descriptor of
 * the page attached to the reply (SCM_RIGHTS; a sealed memory file of PX_PIPE_RING_OFFSET + ring
 * size bytes, rounded up to whole 4096-byte pages, to map shared). Without the descriptor (a reply that could not carry it at once) the result is 0:
 * use the stream service then. Other results as the status service's commands 0 and 1.
 *
 * The page (all integers little-endian, naturally aligned, accessed atomically):
 *   magic, ring_size    written once by the server; a client checks both after mapping
 *   flags               PX_PIPE_EOF once every write end has closed, PX_PIPE_BROKEN once every
 *                       read end has; set only by the server, never cleared
 *   write_lock          0 when free, else the holder's token, with PX_PIPE_LOCK_RESTARTABLE
 *                       set when the holder copies in restartable sequences (below); one
 *                       writer at a time; PX_PIPE_LOCK_TAKING while the server takes it over
 *   read_lock           the same for readers
 *   *_seq               futex words (shared, not private), bumped on every change that a
 *                       waiter may wait for: lock_seq at every release of either lock,
 *                       data_seq when bytes arrive or a flag is set, room_seq when room
 *                       appears or a flag is set
 *   *_waiters           how many wait on the matching word; a waker may skip the wake call
 *                       while it reads 0
 *   head, tail          bytes ever read and ever written; tail - head bytes are buffered, at
 *                       ring offset head % ring_size
 *   sleepers            who sleeps on data_seq or room_seq now, for the server's diagnostics:
 *                       a sleeper puts token * 2 (+ 1 when it waits for room) into a free (0)
 *                       slot before it sleeps and clears it after; none free: it is not listed
 *   writer_at,          where the last writer (reader) runs: its processor's number + 1 while
 *   reader_at           it is in a call and awake; the same with PX_PIPE_AT_ASLEEP set while
 *                       it sleeps in a wait; 0 when unknown. A hint only: a waiter looks again
 *                       before it sleeps only while the other side runs on another processor,
 *                       or sleeps there and was woken by this waiter a moment ago (spinning
 *                       beside a peer that cannot run on the same one only keeps it from
 *                       running); no rule depends on it
 *
 * A writer holds write_lock while it copies its bytes behind tail and then publishes the new
 * tail with one store; a reader holds read_lock while it copies from head and then publishes the
 * new head. So a process killed in the middle of a copy has published nothing, and the server,
 * which sees the link that fetched the token close, frees a lock that still holds that token,
 * and with it every lock and sleeper slot that holds a value no living holder (and none of its
 * own calls) has: a token a holder forged, or copied from another.
 * A write of at most ring_size bytes goes in whole, once that much room is free, so records of
 * up to ring_size bytes never interleave.
 *
 * A holder that is stopped while it holds a lock would hold up every other reader or writer. A
 * holder whose host can run its copy and the store that publishes it as a restartable sequence
 * (one that a thread preempted, stopped or signalled inside starts again from its beginning,
 * and that first checks that the lock word still holds its value) marks its lock word with
 * PX_PIPE_LOCK_RESTARTABLE. A holder that waits PX_PIPE_STUCK_MS for a lock that stays with one
 * holder sends command PX_FIFO_CMD_RECOVER_LOCK to its end's status service; the server then
 * frees a lock word holding a token that no holder of the pipe has, and takes the lock over
 * from a marked holder all of whose threads are stopped: it writes PX_PIPE_LOCK_TAKING, looks
 * again, and frees the lock (or puts the holder's value back when a thread ran meanwhile). A
 * holder whose check finds PX_PIPE_LOCK_TAKING waits until it goes: its value back means the
 * lock is still its own. Threads of one process take a lock one at a time, so that a lock word
 * holding the process's value always means the same thread.
 *
 * A count tail - head above ring_size means the page was
 * written by a client that does not keep these rules: the server then marks the pipe
 * end-of-file and broken for everyone.
 * This header is plain C so that any client can include it.
 */
#ifndef POSIX_PIPE_PAGE_H
#define POSIX_PIPE_PAGE_H

#include <stdint.h>

#include "wire.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The FIFO status service's commands, one a line: code, constant, the name tools show, the
 * request's values, the reply's data (value types as in posix_service.h). moreToCome answers
 * result 1 while more data may come, else 0; lastStatus answers the status of the end's last
 * read or write (PX_FIFO_STATUSES) as its result; sharedPage answers result 1 with the page
 * attached; recoverLock names PX_FIFO_WRITE_LOCK or PX_FIFO_READ_LOCK and answers 1 when the
 * server freed it, else 0. */
#define PX_FIFO_COMMANDS(X)                                                                        \
  X(0, PX_FIFO_CMD_MORE_DATA, "moreToCome", "", "")                                                \
  X(1, PX_FIFO_CMD_STATUS, "lastStatus", "", "")                                                   \
  X(2, PX_FIFO_CMD_SHARED_PAGE, "sharedPage", "", "u32 token, u32 size")                           \
  X(3, PX_FIFO_CMD_RECOVER_LOCK, "recoverLock", "u32 which", "")

PX_COMMAND_ENUM(px_fifo_command, PX_FIFO_COMMANDS)

/* The status of an end's last read or write: code, constant, the name tools show. */
#define PX_FIFO_STATUSES(X)                                                                        \
  X(0, PX_FIFO_STATUS_OK, "ok")                                                                    \
  X(1, PX_FIFO_STATUS_EOF, "eof")                 /* a read found nothing, the writers are gone */ \
  X(2, PX_FIFO_STATUS_BROKEN, "broken")           /* a write found the readers gone */             \
  X(3, PX_FIFO_STATUS_NOT_READABLE, "not-readable") /* a read of a write end or a closed end */    \
  X(4, PX_FIFO_STATUS_NOT_WRITABLE, "not-writable") /* a write of a read end or a closed end */    \
  X(5, PX_FIFO_STATUS_TIMED_OUT, "timed-out")     /* nothing moved within the time-out */

PX_RESULT_CONSTANTS(PX_FIFO_STATUSES)

#define PX_FIFO_WRITE_LOCK 0u
#define PX_FIFO_READ_LOCK 1u

#define PX_PIPE_PAGE_MAGIC 0x50495045u /* "EPIP" read as bytes */
#define PX_PIPE_RING_OFFSET 128u
#define PX_PIPE_SLEEPERS 14u
#define PX_PIPE_EOF 1u
#define PX_PIPE_BROKEN 2u
/* Tokens lie between these two: a sleeper slot keeps twice a token in 32 bits, and 0 is a
 * free lock. The server draws every token at random, a holder's for as long as the link that
 * fetched it stays open and its own afresh for each of its reads and writes, so no process
 * can tell another's token before it sees it in a lock. */
#define PX_PIPE_MIN_TOKEN 2u
#define PX_PIPE_MAX_TOKEN 0x7FFFFFFFu
/* In a lock word: the holder copies in restartable sequences and may be taken over while
   stopped. Tokens stay below it. */
#define PX_PIPE_LOCK_RESTARTABLE 0x80000000u
/* A lock word the server is taking over from a stopped holder (no token is 0). */
#define PX_PIPE_LOCK_TAKING 0x80000000u
/* How long a holder waits for a lock that stays with one holder before it asks the server. */
#define PX_PIPE_STUCK_MS 20u
/* In writer_at or reader_at: that side sleeps in a wait on the processor the rest names. */
#define PX_PIPE_AT_ASLEEP 0x80000000u

typedef struct px_pipe_page {
  uint32_t magic;
  uint32_t ring_size;
  uint32_t flags;
  uint32_t write_lock;
  uint32_t read_lock;
  uint32_t lock_seq;
  uint32_t lock_waiters;
  uint32_t data_seq;
  uint32_t data_waiters;
  uint32_t room_seq;
  uint32_t room_waiters;
  uint32_t reserved;
  uint64_t head;
  uint64_t tail;
  uint32_t sleepers[PX_PIPE_SLEEPERS];
  uint32_t writer_at;
  uint32_t reader_at;
  /* ring_size bytes of ring follow at PX_PIPE_RING_OFFSET */
} px_pipe_page;

#ifdef __cplusplus
static_assert(sizeof(px_pipe_page) == PX_PIPE_RING_OFFSET, "the ring follows the header");
}
#else
_Static_assert(sizeof(px_pipe_page) == PX_PIPE_RING_OFFSET, "the ring follows the header");
#endif

#endif /* POSIX_PIPE_PAGE_H */
