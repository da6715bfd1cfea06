// The inside of a service multiplex, shared by its link threads, the process-wide acceptor and
// the Multiplex object. Every link thread holds a reference to the core, and so does the
// acceptor while the multiplex is open, so the core outlives the last of them even when the
// Multiplex itself has gone.
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

  // The core whose link thread is running, or null on any other thread.
  static Core*& current();

  // Lists a freshly accepted link and counts its thread as running before the thread exists,
  // so that wait() never misses a link the acceptor is still starting; false when the
  // multiplex is closed or full. Every admitted link is then handed to serve().
  bool admit(const Ref<ChnLink>& link);
  // Starts the thread of an admitted link; when that fails the link is shut down and forgotten.
  void serve(const Ref<ChnLink>& link);
  void forget(const Ref<ChnLink>& link);
  // The last thing a link thread does.
  void threadEnded();
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
  // Signalled when a thread ends and when the notification turn comes free.
  std::condition_variable changed;
  bool closed = false;              // guarded by mutex
  bool fileRemoved = false;         // guarded by mutex
  std::vector<Entry> services;      // guarded by mutex; service id = index + 1
  std::vector<Ref<ChnLink>> links;  // guarded by mutex: admitted links not yet ended
  size_t running = 0;               // guarded by mutex: admitted links whose threads not ended
  uint64_t notifier = 0;            // guarded by mutex: thread inside a notification, 0 if none
  uint32_t notifyDepth = 0;         // guarded by mutex: how often `notifier` entered
};

// The one acceptor thread of the process (multiplex_accept.cpp). It waits on the listening
// sockets of every open multiplex at once, accepts, admits each link to its multiplex and
// starts the link's thread outside its own lock.
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
// accepted socket and serving it on the link's own thread (multiplex_link.cpp).
struct MuxLinkServe {
  static Ref<ChnLink> make(int fd, const ChnPeer& peer, Ref<Object> ticket);
  // Serves the link until it closes; runs the bind, the requests and the disconnect.
  static void run(Libraries::Service::Multiplex::Core& core, const Ref<ChnLink>& link);

 private:
  struct State;
  static bool readOne(State& st);
  static bool bind(State& st, const Ref<InMsg>& msg);
  static void dispatch(State& st, const Ref<InMsg>& msg);
  static void answerBind(State& st, uint64_t serviceId, uint32_t status);
};
