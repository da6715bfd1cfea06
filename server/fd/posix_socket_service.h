// The service of a socket description. It exists so that a socket's node lists a service under
// the socket interface type; every request to it, whatever its command, answers 0 with no
// values. Like the item service it holds its description only weakly.
#pragma once

#include "platform/chn.h"
#include "platform/service.h"

class FileDescriptionServerSocket;

class PosixSocketService : public Object, public Interfaces::Service, public ConMan {
 public:
  // Null when `server` is null.
  static Ref<PosixSocketService> create(FileDescriptionServerSocket* server);

  bool handle(const Ref<InMsg>& in, const Ref<OutMsg>& out, uint32_t* ret, uint64_t value,
              Ref<Object>* extra) override;
  bool isBound() override { return false; }
  uint32_t unbind(Ref<Object> /*binding*/) override { return 0; }
  Ref<String> name() override { return String::create("PosixSocket"); }

  bool connect(const Ref<ChnLink>& /*link*/) override { return true; }
  void disconnect(const Ref<ChnLink>& /*link*/) override {}

 private:
  explicit PosixSocketService(FileDescriptionServerSocket* server);

  const WeakRef<FileDescriptionServerSocket> server_;
};
