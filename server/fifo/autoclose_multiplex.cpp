#include "fifo/autoclose_multiplex.h"

#include "common/close_queue.h"

void AutocloseSvcMultiplex::setMultiplex(Ref<Libraries::Service::Multiplex> multiplex) {
  MonLock lock(monitor_);
  multiplex_ = std::move(multiplex);
}

void AutocloseSvcMultiplex::setCharge(Ref<DescriptionCharge> charge) {
  MonLock lock(monitor_);
  charge_ = std::move(charge);
}

bool AutocloseSvcMultiplex::connect(const Ref<ChnLink>& link) {
  if (!link || !(link->peerIdentity() == maker_)) return false;
  if (inner_ && !inner_->connect(link)) return false;
  MonLock lock(monitor_);
  if (!open_) return false;
  ++openCount_;
  claimed_ = true;
  return true;
}

void AutocloseSvcMultiplex::disconnect(const Ref<ChnLink>& link) {
  Ref<Libraries::Service::Multiplex> multiplex;
  Ref<DescriptionCharge> charge;  // released once the multiplex has closed
  {
    MonLock lock(monitor_);
    if (!open_) return;
    if (inner_) inner_->disconnect(link);
    if (openCount_ != 0 && --openCount_ != 0) return;
    if (!multiplex_) return;
    open_ = false;
    multiplex = std::move(multiplex_);
    charge = std::move(charge_);
  }
  // The platform lets a multiplex be closed and waited for from one of its own link threads:
  // the wait then covers every thread but this one.
  multiplex->close();
  multiplex->wait(kForever);
  multiplex.reset();
  charge.reset();
  inner_.reset();
}

bool AutocloseSvcMultiplex::claimed() const {
  MonLock lock(monitor_);
  return claimed_;
}

bool AutocloseSvcMultiplex::closeUnclaimed() {
  Ref<Libraries::Service::Multiplex> multiplex;
  {
    MonLock lock(monitor_);
    if (!open_ || claimed_ || !multiplex_) return false;
    open_ = false;
    multiplex = std::move(multiplex_);
    charge_.reset();
  }
  closeLater(std::move(multiplex));
  return true;
}

uint64_t AutocloseSvcMultiplex::openCount() const {
  MonLock lock(monitor_);
  return openCount_;
}

bool AutocloseSvcMultiplex::isOpen() const {
  MonLock lock(monitor_);
  return open_;
}

AutocloseSvcMultiplex::~AutocloseSvcMultiplex() {
  multiplex_.reset();
  inner_.reset();
}
