#include "fifo/autoclose_multiplex.h"

#include "platform/sync.h"

bool AutocloseSvcMultiplex::connect(const Ref<ChnLink>& link) {
  if (inner_ && !inner_->connect(link)) return false;
  ++openCount_;
  return true;
}

void AutocloseSvcMultiplex::disconnect(const Ref<ChnLink>& link) {
  if (!open_) return;
  if (inner_) inner_->disconnect(link);
  if (openCount_ != 0 && --openCount_ != 0) return;
  if (!multiplex_) return;
  open_ = false;
  // The platform lets a multiplex be closed and waited for from one of its own link threads:
  // the wait then covers every thread but this one.
  Ref<Libraries::Service::Multiplex> multiplex = std::move(multiplex_);
  multiplex->close();
  multiplex->wait(kForever);
  multiplex.reset();
  inner_.reset();
}

AutocloseSvcMultiplex::~AutocloseSvcMultiplex() {
  multiplex_.reset();
  inner_.reset();
}
