// Debugger support on Linux: a tracer is visible as TracerPid in /proc/self/status.
#include "kvos/debugger.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kvos {
namespace {

std::atomic<DebuggerWriter> g_writer{nullptr};

int tracer_pid() {
  FILE* f = std::fopen("/proc/self/status", "re");
  if (f == nullptr) return 0;
  char line[256];
  int pid = 0;
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (std::strncmp(line, "TracerPid:", 10) == 0) {
      pid = std::atoi(line + 10);
      break;
    }
  }
  std::fclose(f);
  return pid;
}

}  // namespace

bool debugger_present() { return tracer_pid() != 0; }

void debugger_break() {
  if (debugger_present()) std::raise(SIGTRAP);
}

void debugger_output(const char* text) {
  if (text == nullptr) return;
  if (DebuggerWriter writer = g_writer.load(std::memory_order_acquire)) {
    writer(text);
    return;
  }
  if (debugger_present()) {
    std::fputs(text, stderr);
    std::fflush(stderr);
  }
}

DebuggerWriter set_debugger_writer(DebuggerWriter writer) {
  return g_writer.exchange(writer, std::memory_order_acq_rel);
}

}  // namespace kvos
