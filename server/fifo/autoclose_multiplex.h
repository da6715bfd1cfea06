// The connection manager of a published pipe end's multiplex. Such an end has no owner in the
// server (no descriptor table refers to it): its life is its clients' connections. The
// multiplex tells this object of every connection to and disconnection from either of the
// end's services; when the last connection goes, it closes the multiplex and lets go of it.
// Closing releases the services and with them the last reference to the FIFO end, whose
// destructor marks the FIFO end-of-file or broken.
//
// The multiplex holds this object (as its services' manager) and this object holds the
// multiplex; the last disconnection breaks the cycle. An end that no client ever connects to
// stays open.
//
// The platform serialises the notifications of one multiplex, so `openCount_` and `open_` are
// plain fields changed only inside connect and disconnect.
#pragma once

#include <cstdint>

#include "platform/chn.h"
#include "platform/multiplex.h"

class AutocloseSvcMultiplex : public Object, public ConMan {
 public:
  static Ref<AutocloseSvcMultiplex> create() { return new AutocloseSvcMultiplex(); }

  // The multiplex to close; set by its publisher right after it is made, before any client can
  // connect.
  void setMultiplex(Ref<Libraries::Service::Multiplex> multiplex) { multiplex_ = std::move(multiplex); }
  // A further manager consulted first on every notification; nothing in the server sets one.
  void setInner(Ref<ConMan> inner) { inner_ = std::move(inner); }

  bool connect(const Ref<ChnLink>& link) override;
  // Closes the multiplex, on the notifying thread, when the count reaches (or already is) 0.
  void disconnect(const Ref<ChnLink>& link) override;

  // Tests and diagnostics.
  uint64_t openCount() const { return openCount_; }
  bool isOpen() const { return open_; }

  ~AutocloseSvcMultiplex() override;

 private:
  AutocloseSvcMultiplex() = default;

  Ref<ConMan> inner_;
  Ref<Libraries::Service::Multiplex> multiplex_;
  uint64_t openCount_ = 0;  // connections accepted and not yet gone
  bool open_ = true;        // false once the multiplex has been closed
};
