// The calling thread's Windows message queue, pumped while the host has
// installed no pump of its own.
#include <windows.h>

#include "../common/system_pump.h"

namespace kvos::system_pump {
namespace {

thread_local MSG t_message;

}  // namespace

bool peek() { return PeekMessageA(&t_message, nullptr, 0, 0, PM_NOREMOVE) != 0; }

int get() {
  const BOOL result = GetMessageA(&t_message, nullptr, 0, 0);
  return result == -1 ? -1 : (result != 0 ? 1 : 0);
}

void dispatch() {
  TranslateMessage(&t_message);
  DispatchMessageA(&t_message);
}

}  // namespace kvos::system_pump
