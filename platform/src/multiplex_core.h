// The inside of a service multiplex, shared by its acceptor thread, its link threads and the
// Multiplex object. Every thread holds a reference to the core, so the core outlives the last
// of them even when the Multiplex itself has gone.
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

  // The core whose thread is running, or null on any other thread.
  static Core*& current();

  // Starts a thread of this multiplex running `body`; counted in `running` until it calls
  // threadEnded(). False when the thread could not be started.
  bool startThread(Ref<Exec> body);
  // The last thing a thread of the multiplex does.
  void threadEnded();

  // Lists a freshly accepted link; false when the multiplex is closed or full.
  bool admit(const Ref<ChnLink>& link);
  void forget(const Ref<ChnLink>& link);
  // The service with id `id` (1-based); false when there is none.
  bool lookup(uint64_t id, Entry* entry);

  // Around every connect and disconnect call: one notification of the multiplex at a time.
  void beginNotify();
  void endNotify();

  void close();
  bool wait(uint32_t timeoutMs);
  bool isClosed();
  // Removes the socket file, once.
  void removeFile();

  // Fixed once create() has finished.
  Ref<String> name;
  uint64_t id = 0;
  std::string socketPath;
  int wakeFd = -1;  // eventfd that close() pokes to stop the acceptor; closed by ~Core only
  // The listening socket: the acceptor thread's, which closes it when it ends; ~Core closes it
  // when the acceptor never ran.
  int listenFd = -1;

  std::mutex mutex;
  // Signalled when a thread ends and when the notification turn comes free.
  std::condition_variable changed;
  bool closed = false;              // guarded by mutex
  bool fileRemoved = false;         // guarded by mutex
  std::vector<Entry> services;      // guarded by mutex; service id = index + 1
  std::vector<Ref<ChnLink>> links;  // guarded by mutex: links whose threads are serving them
  size_t running = 0;               // guarded by mutex: threads started and not yet ended
  uint64_t notifier = 0;            // guarded by mutex: thread inside a notification, 0 if none
  uint32_t notifyDepth = 0;         // guarded by mutex: how often `notifier` entered
};

}  // namespace Libraries::Service

// The multiplex's hands on a ChnLink (whose insides it may touch as a friend): making one for an
// accepted socket and serving it on the link's own thread (multiplex_link.cpp).
struct MuxLinkServe {
  static Ref<ChnLink> make(int fd, uint64_t peerPid);
  // Serves the link until it closes; runs the bind, the requests and the disconnect.
  static void run(Libraries::Service::Multiplex::Core& core, const Ref<ChnLink>& link);

 private:
  struct State;
  static bool readOne(State& st);
  static bool bind(State& st, const Ref<InMsg>& msg);
  static void dispatch(State& st, const Ref<InMsg>& msg);
  static void answerBind(State& st, uint64_t serviceId, uint32_t status);
};

namespace Libraries::Service {
// The acceptor's body (multiplex_accept.cpp).
Ref<Exec> makeAcceptor(const Ref<Multiplex::Core>& core);
}  // namespace Libraries::Service
