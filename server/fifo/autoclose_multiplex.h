// The connection manager of a published pipe end's multiplex. Such an end has no owner in the
// server (no descriptor table refers to it): its life is its maker's connections. Only the
// process that made the end may connect (its channel is listed in RT/chn for anyone to find):
// so nobody else can read or write it, or keep it open after its maker let go. The
// multiplex tells this object of every connection to and disconnection from either of the
// end's services; when the last connection goes, it closes the multiplex and lets go of it.
// Closing releases the services and with them the last reference to the FIFO end, whose
// destructor marks the FIFO end-of-file or broken.
//
// The multiplex holds this object (as its services' manager) and this object holds the
// multiplex; the last disconnection breaks the cycle. An end that no client has connected to
// yet stays open until its maker withdraws it (closeUnclaimed, when the process that made it
// ends or holds too many such ends).
//
// Locking: `monitor_` guards openCount_, open_, claimed_, multiplex_ and charge_. The platform serialises
// the notifications of one multiplex; the monitor is for closeUnclaimed(), which runs on other
// threads. It is never held while a multiplex is closed or waited for.
#pragma once

#include <cstdint>

#include "fd/description_budget.h"
#include "platform/chn.h"
#include "platform/multiplex.h"
#include "platform/sync.h"

class AutocloseSvcMultiplex : public Object, public ConMan {
 public:
  // An end that admits the links of the process `maker` only.
  static Ref<AutocloseSvcMultiplex> create(const ProcIdentity& maker) {
    return new AutocloseSvcMultiplex(maker);
  }

  // The multiplex to close; set by its publisher right after it is made, before any client can
  // connect.
  void setMultiplex(Ref<Libraries::Service::Multiplex> multiplex);
  // The share of its maker's budget that the end holds until it closes.
  void setCharge(Ref<DescriptionCharge> charge);
  // A further manager consulted first on every notification: the end's status service, which
  // frees what a departed holder of the shared page held. Set before the multiplex serves.
  void setInner(Ref<ConMan> inner) { inner_ = std::move(inner); }

  // Refused for any process but the maker, and once the end has been closed.
  bool connect(const Ref<ChnLink>& link) override;
  // Closes the multiplex, on the notifying thread, when the count reaches (or already is) 0.
  void disconnect(const Ref<ChnLink>& link) override;

  // Whether a client has ever connected.
  bool claimed() const;
  // Closes the end unless a client has connected to it; the multiplex is stopped by the
  // deferred close queue, so any thread may call this. True when it closed the end.
  bool closeUnclaimed();

  // Tests and diagnostics.
  uint64_t openCount() const;
  bool isOpen() const;

  ~AutocloseSvcMultiplex() override;

 private:
  explicit AutocloseSvcMultiplex(const ProcIdentity& maker) : maker_(maker), monitor_(Mon::create()) {}

  const ProcIdentity maker_;
  Ref<Mon> monitor_;
  Ref<ConMan> inner_;  // set before the multiplex serves anyone, then only read
  Ref<Libraries::Service::Multiplex> multiplex_;
  Ref<DescriptionCharge> charge_;  // released when the end closes
  uint64_t openCount_ = 0;  // connections accepted and not yet gone
  bool open_ = true;        // false once the multiplex has been closed
  bool claimed_ = false;    // true from the first accepted connection on
};
