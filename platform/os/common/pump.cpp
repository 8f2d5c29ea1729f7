// The host's message pump, or the system's message queue without one.
#include "kvos/pump.h"

#include <mutex>

#include "system_pump.h"

namespace kvos {
namespace {

std::mutex g_mutex;
MessagePumpHooks g_hooks;

MessagePumpHooks hooks() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_hooks;
}

}  // namespace

void pump_install(const MessagePumpHooks* hooks) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_hooks = hooks != nullptr && hooks->peek != nullptr ? *hooks : MessagePumpHooks{};
}

bool pump_peek() {
  const MessagePumpHooks h = hooks();
  return h.peek != nullptr ? h.peek(h.context) : system_pump::peek();
}

int pump_get() {
  const MessagePumpHooks h = hooks();
  if (h.peek == nullptr) return system_pump::get();
  return h.get != nullptr ? h.get(h.context) : -1;
}

void pump_dispatch() {
  const MessagePumpHooks h = hooks();
  if (h.peek == nullptr)
    system_pump::dispatch();
  else if (h.dispatch != nullptr)
    h.dispatch(h.context);
}

}  // namespace kvos
