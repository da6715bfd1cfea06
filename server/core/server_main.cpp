#include "core/server_main.h"

#include <posix/diag_service.h>
#include <posix/posix_service.h>

#include "core/posix_service.h"
#include "common/service_log.h"
#include "core/posix_fd_service.h"
#include "diag/description_watch.h"
#include "diag/diag_service.h"
#include "platform/chario.h"
#include "platform/devnode.h"
#include "platform/proc.h"
#include "process/agent_threads.h"

using posix::serviceLog;

namespace {

// Descriptors kept spare for the accept paths: when the process runs out, a process with few
// links can still connect (each such accept takes three for a moment and keeps one).
constexpr size_t kReservedDescriptors = 16;

// Open flags with which the root directory is opened to bind "tmp".
constexpr uint32_t kRootOpenFlags = 51;
constexpr uint64_t kServiceNodeAccess = 32;

bool acquired(const Ref<Chn>& channel) { return channel && channel->id() != 0; }

// Makes "/tmp/.PosixService" name the process service, and "/tmp" lead into the device tree.
void publishServiceNode(const Ref<Chn>& channel) {
  Ref<DeviceNode> node = DeviceNode::create(PX_SERVICE_NODE_TYPE, channel->id(), 0, 0, kServiceNodeAccess, 0);
  Ref<DeviceServer> devices = DeviceServer::create();
  devices->registerNode(String::create(PX_SERVICE_NODE_PATH), node);
  if (Ref<Services::Filesystem::Client::Directory> root =
          Services::Filesystem::Client::Directory::open("/", kRootOpenFlags)) {
    root->bind(String::create("tmp"), DeviceServer::nodePrefix()->append("tmp"));
  }
}

}  // namespace

void serverMain() {
  StdIO::stdOut(Debug::out());
  Chn::reserveDescriptors(kReservedDescriptors);
  DescriptionWatch::start();  // before the first description's multiplex

  // Both services live as long as the process: never released.
  Ref<PosixService> service = new PosixService();
  if (!acquired(service->chn())) {
    POSIX_LOG(serviceLog.handle, 4, "Could not accquire channel " << PX_SERVICE_NAME);
    Proc::exit(-1);
  }
  publishServiceNode(service->chn());

  Ref<PosixFDService> fdService = new PosixFDService();
  if (!acquired(fdService->channel())) {
    POSIX_LOG(serviceLog.handle, 4, "Could not accquire channel" << PX_FD_SERVICE_NAME);
    Proc::exit(-1);
  }
  Ref<Thd> fdThread = Thd::create(fdService);
  fdThread->setName("FD");
  fdThread->start();
  // The introspection service answers on a thread of its own; without it the server still
  // serves, so a failure is only logged.
  if (Ref<DiagService> diag = DiagService::create(); diag && acquired(diag->channel())) {
    Ref<Thd> diagThread = Thd::create(diag);
    diagThread->setName("Diag");
    diagThread->start();
  } else {
    POSIX_LOG(serviceLog.handle, 3, "Could not acquire channel " << PX_DIAG_SERVICE_NAME);
  }
  // Threads wait for the first spawns' agents from the start.
  AgentThreads::prepare();

  service->mainLoop();
  Proc::exit(0);  // reached only if the channel was closed under the loop
}
