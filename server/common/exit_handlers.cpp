#include "common/exit_handlers.h"

#include <new>

#include "platform/sync.h"

namespace {
struct ExitNode {
  ExitNode* next;
  ExitHandler handler;
};
ExitNode* g_head = nullptr;  // guarded by InitCode's lock
}  // namespace

int32_t registerExitHandler(ExitHandler handler) {
  InitCode::lock();
  auto* node = new (std::nothrow) ExitNode{g_head, handler};
  if (node) g_head = node;
  InitCode::unlock();
  return node ? 0 : -1;
}

void runExitHandlers() {
  for (;;) {
    InitCode::lock();
    ExitNode* node = g_head;
    if (!node) {
      InitCode::unlock();
      return;
    }
    g_head = node->next;
    ExitHandler handler = node->handler;
    delete node;
    if (handler) handler();
    InitCode::unlock();
  }
}
