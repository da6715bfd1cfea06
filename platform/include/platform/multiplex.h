// The service multiplex: several services behind one channel socket (RT/chn/<id>, reachable by
// id only). Services are numbered in the order they are added (1, 2, 3, ... on a fresh
// socket). A client connects, sends a bind frame naming a service, and from then on every
// request of that link goes to that service.
//
// Threads: links have no threads of their own. Connections are accepted by a single acceptor
// thread that the process shares among all its multiplexes, and the links of every multiplex
// are served by one small pool of threads that the process shares too (at most two per core,
// within 4 and 16, while no handler waits), so an idle link or multiplex costs no thread. A
// link's requests are handled in order, one at a time, on whichever pool thread takes its
// turn; that thread also runs the connection manager's connect and disconnect for the link.
// The notifications of one multiplex are serialised: no two connect/disconnect calls of one
// multiplex run at the same time, so a connection manager may count links in plain fields.
//
// A request that waits for a futex word (bytes or room of a FIFO end's shared page, one of its
// locks) holds no thread: its handler parks it (park()) and returns. A few watcher threads
// wait on the words of every parked request at once (up to 127 a thread, made and ended as
// the parked requests come and go) and hand a request back to the pool when its word moves,
// its time comes, or its link has an event (a hang-up, a close, a request behind it); its
// handler's resume() then tries again. The link's turn stays with the parked request: its next
// request is read once this one is answered.
//
// A handler that waits otherwise (for another link, or where the host cannot watch several
// words at once) declares the wait with a Waiting in scope: while it waits, the pool starts
// another thread when none is free, so that one client's waiting requests never hold up the
// other clients' links. Such a handler waits in slices and asks ChnLink::peerGone() between
// them (the stream resolver does so), so that it ends shortly after the client or the
// multiplex has gone. close() and a client hang-up end a link at its next turn.
#pragma once

#include <chrono>

#include <cstddef>
#include <cstdint>

#include "platform/chn.h"
#include "platform/object.h"
#include "platform/service.h"
#include "platform/string.h"

namespace Libraries::Service {

class Multiplex : public Object {
 public:
  // Links served at once; further connections are accepted and closed at once.
  static constexpr size_t kMaxLinks = 256;
  // Links one process may hold on all multiplexes of this process together (each is a socket
  // and an eventfd here); a link beyond it is refused with one reply frame (id 0, result PX_RESULT_LIMIT).
  static constexpr size_t kMaxLinksPerProcess = 512;
  // Listening sockets of closed multiplexes that the process keeps, bound, for the next ones
  // it makes (see close()); each holds a descriptor and a file in RT/chn.
  static constexpr size_t kSpareSockets = 8;

  // Watches the requests of every multiplex of the process (for diagnostics): `classify` is
  // asked once per link, when its bind is accepted, for a number that stands for the bound
  // service; `note` is told of each request after its handler returned, with that number, the
  // result (`answered` false: the service kept the request to answer later) and when the
  // request was read. Set once, before the first multiplex is made.
  struct Observer {
    uint32_t (*classify)(Interfaces::Service& service);
    void (*note)(uint32_t kind, const Ref<InMsg>& request, bool answered, uint32_t result,
                 std::chrono::steady_clock::time_point began);
  };
  static void observe(const Observer& observer);

  // A new multiplex listening on a fresh channel socket; `name` names it in logs. Null (and Error set) when the socket cannot be made or not be watched for
  // connections (the shared acceptor thread starts with the first multiplex).
  static Ref<Multiplex> create(Ref<String> name);

  // Adds a service served for links that bind to it; `conMan` is asked on every bind and told
  // of every bound link that closes. Answers the service id (1, 2, 3, ... on a fresh socket;
  // on a spare, the ids go on from the last one its earlier multiplex gave out), or 0 when
  // either is null or the multiplex was closed.
  uint64_t add(Ref<Interfaces::Service> service, Ref<ConMan> conMan);
  uint64_t channelId() const;
  const Ref<String>& name() const;

  // Stops accepting, removes the socket file and shuts every link down; once it has returned no
  // further link is admitted. Any thread may call it, from a handler or a notification of the
  // multiplex's own links too.
  //
  // Binding and removing a socket file costs more than the requests of a short-lived
  // multiplex, so up to kSpareSockets closed sockets stay bound as spares, and create() takes
  // one over (same channel id) when it can. A link that reaches a spare is closed at once, and
  // a later multiplex on it numbers its services past the earlier ones, so a node of a closed
  // multiplex never reaches another. Spares go when the process has no multiplex open for a
  // second, and at shut-down.
  void close();
  // Waits until every link of the multiplex has ended (been disconnected), except the one the
  // calling thread serves when it is one of them; false when the time-out ended first. Called
  // from inside a notification, it
  // lets the other links' notifications run meanwhile, so nothing deadlocks.
  bool wait(uint32_t timeoutMs);

  // Closes the multiplex and releases its services and connection managers. Links still
  // ending keep their own service and manager until they have ended.
  ~Multiplex() override;

  // Whether a link has ever been admitted (its bind accepted or not).
  bool reached() const;
  // Whether the calling thread is one of the pool's, which serve the links of every multiplex.
  static bool onPoolThread();

  // Declares, for its life, that the calling thread waits inside a handler or notification of
  // a multiplex link: when no other thread of the pool is free meanwhile, another one starts,
  // so the process's other links are served while this one waits. Harmless on any other
  // thread. A declaration costs two atomic counts, and a thread start when none is free.
  class Waiting {
   public:
    Waiting();
    ~Waiting();
    Waiting(const Waiting&) = delete;
    Waiting& operator=(const Waiting&) = delete;

   private:
    const bool counted_;
  };

  // A request kept by its handler while it waits for a word, without a thread (park()).
  class Parked : public virtual RefCount {
   public:
    // Called on a pool thread that serves the request's link (ChnLink::served() is its link),
    // once the word moved off the value given, the time given came, or the link had an event:
    // answers the request, or parks it again.
    virtual void resume() = 0;
  };
  // Whether the calling thread may park the request it handles: it is a pool thread inside a
  // handler of a multiplex link, and the host can watch several words at once.
  static bool canPark();
  // Parks the request the calling thread handles (canPark() must have answered true): once the
  // handler has returned (answering false: kept), the link's turn waits, without a thread,
  // until *word no longer holds `seen` (null: for the time alone), `wakeAt` has come, or the
  // link had an event; then `request` is resumed. The word must stay mapped until then.
  static void park(Ref<Parked> request, const uint32_t* word, uint32_t seen,
                   std::chrono::steady_clock::time_point wakeAt);

  struct Core;  // the state the threads share (multiplex_core.h)

 private:
  explicit Multiplex(Ref<String> name);
  Ref<String> name_;
  Ref<Core> core_;
};

}  // namespace Libraries::Service
