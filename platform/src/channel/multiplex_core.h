// The inside of a service multiplex, shared by the process-wide acceptor, the pool that serves
// its links and the Multiplex object. Every served link holds a reference to the core, and so
// does the acceptor while the multiplex is open, so the core outlives the last of them even
// when the Multiplex itself has gone.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/chn.h"
#include "platform/multiplex.h"
#include "platform/thread.h"

namespace Libraries::Service {

struct Multiplex::Core : public Object {
  struct Entry {
    Ref<Interfaces::Service> service;
    Ref<ConMan> conMan;
  };

  ~Core() override;

  // The core one of whose links the calling thread is serving now, or null.
  static Core*& current();

  // Lists a freshly accepted link and counts it as running before the pool knows it, so that
  // wait() never misses a link the acceptor is still handing over; false when the multiplex
  // is closed or full. Every admitted link is then handed to serve().
  bool admit(const Ref<ChnLink>& link);
  // Hands an admitted link to the pool; when that fails the link is shut down and forgotten.
  void serve(const Ref<ChnLink>& link);
  void forget(const Ref<ChnLink>& link);
  // The last thing done for a link, after its disconnect.
  void linkEnded();
  // The service with id `id` (serviceBase + 1 onwards); false when there is none.
  bool lookup(uint64_t id, Entry* entry);

  // Around every connect and disconnect call: one notification of the multiplex at a time.
  void beginNotify();
  void endNotify();

  void close();
  bool wait(uint32_t timeoutMs);
  // Removes the socket file, once.
  void removeFile();

  // Fixed once create() has finished.
  Ref<String> name;
  uint64_t id = 0;
  std::string socketPath;
  // Service ids of this multiplex start after this: 0 on a fresh socket; on a socket that an
  // earlier multiplex served, past every id that one gave out, so that a node of the earlier
  // multiplex never binds to a service of this one.
  uint64_t serviceBase = 0;
  // The listening socket until the acceptor takes it over (then -1); ~Core closes it only when
  // the acceptor never had it.
  int listenFd = -1;
  // The acceptor's key for this multiplex, 0 until it was handed over.
  uint64_t acceptKey = 0;

  std::mutex mutex;
  // Signalled when a link ends and when the notification turn comes free.
  std::condition_variable changed;
  bool closed = false;              // guarded by mutex
  bool fileRemoved = false;         // guarded by mutex
  std::vector<Entry> services;      // guarded by mutex; service id = index + 1
  std::vector<Ref<ChnLink>> links;  // guarded by mutex: admitted links not yet ended
  size_t running = 0;               // guarded by mutex: admitted links not yet disconnected
  bool reached = false;             // guarded by mutex: a link has been admitted
  uint64_t notifier = 0;            // guarded by mutex: thread inside a notification, 0 if none
  uint32_t notifyDepth = 0;         // guarded by mutex: how often `notifier` entered
};

// The one acceptor thread of the process (multiplex_accept.cpp). It waits on the listening
// sockets of every open multiplex at once, accepts, admits each link to its multiplex and
// hands it to the pool that serves links outside its own lock.
//
// It also keeps a few spare sockets: the listening sockets of multiplexes that have closed,
// still bound and watched. A link that reaches a spare is closed at once, as if the socket
// were gone; a new multiplex takes a spare instead of binding a socket of its own, which
// spares the file-system work of making and removing a socket for every short-lived multiplex
// (a pipe end lives for a few requests).
namespace MuxAcceptor {
// Hands `core` a spare socket of the current runtime directory and starts accepting for it:
// sets its id, socket path, service base and accept key. False when there is none.
bool reuse(const Ref<Multiplex::Core>& core);
// Takes over `core`'s listening socket and starts accepting for it; starts the acceptor thread
// on first use. False with errno set when the socket cannot be watched or the thread not made;
// the socket then stays the core's.
bool watch(const Ref<Multiplex::Core>& core);
// Stops accepting for `core`. The socket becomes a spare when there is room (its file then
// stays, and true is answered); otherwise it is closed and the caller removes its file. Once
// it returns the acceptor no longer admits links to the core. `nextBase` is the service base
// for the socket's next multiplex. Harmless (false) when never watched.
bool unwatch(Multiplex::Core& core, uint64_t nextBase);
}  // namespace MuxAcceptor

}  // namespace Libraries::Service

// The multiplex's hands on a ChnLink (whose insides it may touch as a friend): making one for an
// accepted socket, and serving it one turn at a time on whichever pool thread holds the link's
// turn (multiplex_link.cpp; the pool: multiplex_pool.cpp).
struct MuxServed;
struct MuxLinkServe {
  static Ref<ChnLink> make(int fd, const ChnPeer& peer, Ref<Object> ticket);
  // The link's socket (fixed until end() closes it) and the eventfd it pokes when replies
  // wait or it was dropped (-1: none yet).
  static int socketOf(const ChnLink& link) { return link.fd_; }
  static void setWake(ChnLink& link, int wake);
  // One turn: sends what waits (`woken`: the link's eventfd fired), then reads and handles one
  // request, if one is there. False when the link must end (it closed, was dropped, or broke
  // the wire format).
  static bool turn(MuxServed& served, bool woken);
  // Disconnects a bound link and closes its socket; the caller then closes the eventfd.
  static void end(MuxServed& served);

 private:
  static bool bind(MuxServed& served, const Ref<InMsg>& msg);
  static void dispatch(MuxServed& served, const Ref<InMsg>& msg);
  static void answerBind(MuxServed& served, uint64_t serviceId, uint32_t status);
};

// One link in the pool's care. Only the thread that holds the link's turn serves it, so its
// requests are handled in order and one at a time; another thread that sees an event of the
// link meanwhile leaves a note (`again`) for the holder instead.
struct MuxServed : public Object {
  MuxServed(Ref<Libraries::Service::Multiplex::Core> c, Ref<ChnLink> l)
      : core(std::move(c)), link(std::move(l)) {}

  const Ref<Libraries::Service::Multiplex::Core> core;
  const Ref<ChnLink> link;
  int wake = -1;     // eventfd; fixed before the pool watches the link
  uint64_t key = 0;  // the pool's key for the link; fixed before it is watched

  // The turn's own: touched only by the thread holding the turn.
  uint64_t serviceId = 0;                       // 0 until a bind was accepted
  Libraries::Service::Multiplex::Core::Entry bound;  // the bound service, kept for the link's life
  uint32_t kind = 0;                            // the observer's number for the bound service
  bool watchingOut = false;                     // replies wait for room in the socket

  // A request the turn's handler parked (Multiplex::park): filled in by the handler, taken by
  // the thread holding the turn when the handler has returned. The turn's own.
  struct Parking {
    Ref<Libraries::Service::Multiplex::Parked> request;
    const uint32_t* word = nullptr;
    uint32_t seen = 0;
    int64_t wakeAtNs = 0;  // steady clock
  };
  Parking parking;

  // Guarded by the park set's lock (multiplex_park.cpp): the watcher the parked request waits
  // in (null while it waits in none), and whether an event of the link asked for it back.
  Object* watcher = nullptr;
  bool nudged = false;

  std::mutex turnMutex;
  bool parked = false;    // guarded by turnMutex: the turn waits with a parked request
  uint32_t heldBack = 0;  // guarded by turnMutex: watches that fired while it was parked
  bool busy = false;      // guarded by turnMutex: a thread holds the turn
  bool again = false;     // guarded by turnMutex: an event came during the turn
  uint32_t disarmed = 0;  // guarded by turnMutex: which of the link's two watches fired
  bool ended = false;     // guarded by turnMutex: the link was taken out of the pool
};

// An epoll set with an eventfd of `eventFlags` (besides non-blocking and close-on-exec) in it,
// reported with key 0: what the acceptor and the pool each wait in. False (errno set, nothing
// left open) when either cannot be made.
bool makeWatchedEpoll(int* epoll, int* wake, int eventFlags);

// The threads that serve every multiplex link of the process (multiplex_pool.cpp).
namespace MuxPool {
// Makes the pool's epoll set, once per process, so that the first link needs nothing made;
// false (errno set) when it cannot be made.
bool prepare();
// Starts watching an admitted link; false (errno set) when its eventfd or watch cannot be made.
bool serve(const Ref<Libraries::Service::Multiplex::Core>& core, const Ref<ChnLink>& link);
// Hands a link whose turn waited with a parked request back to a pool thread, which resumes
// the request and goes on with the link's turn.
void resume(const Ref<MuxServed>& served);
}  // namespace MuxPool

// The watchers of parked requests (multiplex_park.cpp): threads that wait, futex_waitv, on the
// words of up to 127 parked requests each and on a word of their own that says "the set
// changed", and give a request back to the pool (MuxPool::resume) once it is due.
namespace MuxPark {
// Whether the host can wait on several words at once (and a watcher could be started).
bool available();
// Watches the parked request of `served` (served->parking).
void add(const Ref<MuxServed>& served);
// The link of a parked request had an event: its request is handed back now.
void nudge(MuxServed& served);
}  // namespace MuxPark
