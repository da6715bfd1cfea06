// The inside of a channel, shared by the files that make, serve and close channels.
#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "chn_peer.h"
#include "platform/chn.h"

struct Chn::Impl {
  // Fixed once create() has finished.
  std::string socketPath;  // RT/chn/<16 hex>
  std::string namePath;    // RT/chn/<name>; empty for an unnamed channel
  std::string idText;      // the 16 hex digits, which is what the name link points at
  int epollFd = -1;        // closed by the destructor only
  int wakeFd = -1;         // eventfd; closed by the destructor only, so any thread may poke it

  std::mutex mutex;
  bool closed = false;        // guarded by mutex
  bool serving = false;       // guarded by mutex: a thread is inside receive()
  bool tornDown = false;      // guarded by mutex
  bool filesRemoved = false;  // guarded by mutex
  // Links whose replies are queued or that were dropped; guarded by mutex.
  std::vector<Ref<ChnLink>> attention;

  struct Entry {
    Ref<ChnLink> link;  // fixed while listed
    int fd;             // the serving thread's copy of the link's socket
    bool watchingOut;   // serving thread only: EPOLLOUT is armed
  };
  // Open links by key. Guarded by mutex; only the serving thread changes the map, so it may
  // read it without the lock.
  std::unordered_map<uint64_t, Entry> links;

  // Serving-thread state: used by the thread inside receive(), by the destructor, and by
  // create() before the channel is handed out.
  Ref<ConMan> conMan;
  Ref<PeerLinks> peerLinks = PeerLinks::create(kMaxLinksPerProcess);  // locks itself
  int listenFd = -1;
  bool listenWatched = false;
  std::chrono::steady_clock::time_point acceptResume;  // when a paused listener is rearmed
  uint64_t nextKey = 2;  // keys 0 and 1 are the listening socket and the wake-up event
  struct Ready {
    Ref<InMsg> msg;
    bool lastOfBatch;  // the last of several read from its link at once, whose replies wait
  };
  std::deque<Ready> ready;  // requests read but not yet answered by receive()
  // The link whose held replies go out when the service next calls receive(): it has handled
  // the last request of the batch by then.
  Ref<ChnLink> releaseNext;
  // The request handed out last when descriptors came with it: those it was not given are
  // closed when the service next calls receive().
  Ref<InMsg> handedFiles;
  std::vector<uint8_t> buffer;  // ChnServe::kBatch datagrams of PX_WIRE_MAX_FRAME bytes
};

// A non-blocking listening socket at a fresh RT/chn/<id> (chn.cpp), owned by the process (it
// goes at shut-down): answers the socket and fills `id` and `path`, or answers -1 with errno
// set (ESHUTDOWN once the process has shut down). The service multiplex makes its socket
// this way too.
int chnListenAtFreshId(uint64_t* id, std::string* path);

// The serving side of a channel (chn_serve.cpp), run by the thread inside receive().
struct ChnServe {
  static constexpr uint64_t kListenKey = 0;
  static constexpr uint64_t kWakeKey = 1;
  // Links a channel keeps at once. Beyond it only light processes are admitted, for up to
  // kLightRoom more links, so that many processes at their own bound leave room for others.
  static constexpr size_t kMaxLinks = 4096;
  static constexpr size_t kLightRoom = 256;
  // A listener paused for want of descriptors is tried again after this long.
  static constexpr int kAcceptPauseMs = 100;
  // Datagrams read from one link in one pass at most.
  static constexpr size_t kBatch = 4;

  // One round of waiting, at most `waitMs` (-1: for ever): accepts links, reads up to kBatch
  // datagrams from each ready link and flushes queued replies. Answers false when the wait
  // itself failed.
  static bool pass(Chn::Impl& s, Chn* chn, int waitMs);
  // Disconnects every link, closes the listener and lets go of the manager.
  static void tearDown(Chn::Impl& s);
  static void disconnect(Chn::Impl& s, uint64_t key);
  static void watchListener(Chn::Impl& s, bool on);
  // Removes the socket file and the name link (chn.cpp), once.
  static void removeFiles(Chn::Impl& s);

 private:
  static void acceptLinks(Chn::Impl& s, Chn* chn);
  static void addLink(Chn::Impl& s, Chn* chn, int fd, bool fromReserve);
  static void serveLink(Chn::Impl& s, uint64_t key, uint32_t events);
  static void readBatch(Chn::Impl& s, uint64_t key);
  static void serveAttention(Chn::Impl& s);
  static void armOut(Chn::Impl& s, Chn::Impl::Entry& entry, bool on);
};
