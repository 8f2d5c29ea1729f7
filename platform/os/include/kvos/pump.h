// The message pump of the host's user-interface toolkit. The host installs
// its pump; without one the message queue is always empty.
#pragma once

#include "kvos/export.h"

namespace kvos {

struct MessagePumpHooks {
  // Is a message waiting for the calling thread? (Nothing is removed.)
  bool (*peek)(void* context) = nullptr;
  // Removes the next message: > 0 a message, 0 the quit message, -1 an error.
  int (*get)(void* context) = nullptr;
  // Translates and dispatches the message last removed.
  void (*dispatch)(void* context) = nullptr;
  void* context = nullptr;
};

// Installs the hooks (copied; null or a set without peek removes the pump).
KVOS_API void pump_install(const MessagePumpHooks* hooks);

[[nodiscard]] KVOS_API bool pump_peek();
[[nodiscard]] KVOS_API int pump_get();
KVOS_API void pump_dispatch();

}  // namespace kvos
