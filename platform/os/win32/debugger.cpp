// Debugger support on Windows: IsDebuggerPresent, DebugBreak and the system's
// debug output (OutputDebugStringA), which a debugger or a monitor shows.
#include <windows.h>

#include <atomic>

#include "kvos/debugger.h"

namespace kvos {
namespace {

std::atomic<DebuggerWriter> g_writer{nullptr};

}  // namespace

bool debugger_present() { return IsDebuggerPresent() != 0; }

void debugger_break() {
  if (debugger_present()) DebugBreak();
}

void debugger_output(const char* text) {
  if (text == nullptr) return;
  if (DebuggerWriter writer = g_writer.load(std::memory_order_acquire)) {
    writer(text);
    return;
  }
  OutputDebugStringA(text);
}

DebuggerWriter set_debugger_writer(DebuggerWriter writer) {
  return g_writer.exchange(writer, std::memory_order_acq_rel);
}

}  // namespace kvos
